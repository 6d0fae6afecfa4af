#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

namespace {

const QString kRoot = QStringLiteral(TALVEX_SOURCES "/");

QString contentOf(const QString &path)
{
    QFile file(kRoot + path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    return QString::fromUtf8(file.readAll());
}

/// The files of the repository, relative to it, without what a build leaves.
QStringList repositoryFiles()
{
    static const QRegularExpression left(QStringLiteral("^(build[^/]*|\\.git|\\.cache)/"));
    QStringList files;
    QDirIterator all(kRoot, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (all.hasNext()) {
        const QString file = all.next().mid(kRoot.size());
        if (!file.contains(left))
            files.append(file);
    }
    return files;
}

/// What the first group captures, for every match.
QStringList allMatches(const QString &pattern, const QString &text)
{
    QStringList found;
    auto matches =
        QRegularExpression(pattern, QRegularExpression::MultilineOption).globalMatch(text);
    while (matches.hasNext())
        found.append(matches.next().captured(1));
    return found;
}

/// A page without its blocks of commands and dumps.
QString proseOf(QString page)
{
    return page.remove(QRegularExpression(QStringLiteral("(?ms)^```.*?^```$")));
}

/// The anchors that the headings of a page get where it is shown.
QStringList anchorsOf(const QString &page)
{
    QStringList anchors;
    for (QString heading : allMatches(QStringLiteral("^#+ +(.*)$"), proseOf(page))) {
        heading = heading.toLower().remove(QRegularExpression(QStringLiteral("[^\\w\\- ]")));
        anchors.append(heading.replace(QLatin1Char(' '), QLatin1Char('-')));
    }
    return anchors;
}

/// Links that lead nowhere.
/// @param name of the page, relative to the repository
QString deadLinksOf(const QString &name, const QString &page)
{
    QStringList dead;
    for (const QString &link :
         allMatches(QStringLiteral("\\]\\((?![a-z]+:)([^)\\s]+)\\)"), proseOf(page))) {
        const QString path = link.section(QLatin1Char('#'), 0, 0);
        const QString anchor = link.section(QLatin1Char('#'), 1);
        const QString target = path.isEmpty()
            ? name
            : QDir::cleanPath(QFileInfo(name).path() + QLatin1Char('/') + path);
        const bool isThere =
            !target.startsWith(QLatin1String("..")) && QFileInfo::exists(kRoot + target);
        if (!isThere
            || (!anchor.isEmpty()
                && !anchorsOf(path.isEmpty() ? page : contentOf(target)).contains(anchor)))
            dead.append(link);
    }
    return dead.join(QLatin1Char(' '));
}

/// Words in backticks that look like paths or files of the repository, and are none: they begin
/// with one of its folders, or end like the name of a file.
QString wrongPathsOf(const QString &page)
{
    static const QString files = repositoryFiles().join(QLatin1Char('\n')) + QLatin1Char('\n');
    static const QRegularExpression fileName(
        QStringLiteral("^[^/]+\\.(?:md|h|cpp|mm|rep|cmake|plist|sh|yml)$"));
    const auto isThere = [](const QString &start, const QString &word, const QString &end) {
        return files.contains(QRegularExpression(start + QRegularExpression::escape(word) + end));
    };
    QStringList wrong;
    for (QString word : allMatches(QStringLiteral("`([\\w./+-]+)`"), proseOf(page))) {
        if (word.endsWith(QLatin1Char('/')))
            word.chop(1);
        const QString folder = word.section(QLatin1Char('/'), 0, 0) + QLatin1Char('/');
        const bool isPath =
            word.startsWith(folder) && isThere(QStringLiteral("(?m)^"), folder, QString());
        if (isPath ? !isThere(QStringLiteral("(?m)^"), word, QStringLiteral("[/\n]"))
                   : word.contains(fileName)
                    && !isThere(QStringLiteral("[/\n]"), word, QStringLiteral("\n")))
            wrong.append(word);
    }
    return wrong.join(QLatin1Char(' '));
}

} // namespace

/// The pages say what the code does.
class TestPages : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linksAndPathsLeadSomewhere_data()
    {
        QTest::addColumn<QString>("name");
        for (const QString &file :
             repositoryFiles().filter(QRegularExpression(QStringLiteral("\\.md$"))))
            QTest::newRow(qPrintable(file)) << file;
    }

    void linksAndPathsLeadSomewhere()
    {
        QFETCH(QString, name);
        const QString page = contentOf(name);
        QCOMPARE(deadLinksOf(name, page), QString());
        QCOMPARE(wrongPathsOf(page), QString());
    }

    void deadLinksAndWrongPathsAreSeen()
    {
        const QString page = QStringLiteral(
            "# A page\n[a](protocol.md) [b](#a-page) [c](../ipc/) [d](https://example.test/x)\n"
            "[e](gone.md) [f](protocol.md#gone) [g](#gone) [h](../../etc)\n"
            "`ipc/ipcserver.h` `ipcserver.h` `/tmp/x` `other/x` `ipc/gone.h` `gone.cpp`\n"
            "```\n[i](gone.md) `ipc/gone.h`\n# Gone\n```\n");
        QCOMPARE(deadLinksOf(QStringLiteral("docs/protocol.md"), page),
                 QStringLiteral("gone.md protocol.md#gone #gone ../../etc"));
        QCOMPARE(wrongPathsOf(page), QStringLiteral("ipc/gone.h gone.cpp"));
    }

    void everyLogLineOfTheDaemonIsExplained()
    {
        QStringList texts;
        for (const QString &file : repositoryFiles().filter(
                 QRegularExpression(QStringLiteral("^(daemon|ipc|commands|vpncore)/.*\\.cpp$")))) {
            const QString source = contentOf(file);
            texts += allMatches(
                QStringLiteral("q(?:Debug|Warning)\\(\\)\\s*<< (?:QStringLiteral\\()?\"(.*?)\""),
                source);
            // Why a connection was closed, or a socket not opened.
            if (file.startsWith(QLatin1String("ipc/")))
                texts += allMatches(QStringLiteral("QStringLiteral\\(\"((?:the|it|its|there|"
                                                   "clients|too|a frame) [^\"]*)\"\\)"),
                                    source);
        }
        // Of the end of objects, and of a platform layer, that live only in other programs.
        const QRegularExpression ofOthers(QStringLiteral(
            "QRemoteObjectHost::|destroyed$|server stopped|Console|Store|^(TCP|UDP)$"));
        const QString page = contentOf(QStringLiteral("docs/operations.md"))
            + contentOf(QStringLiteral("docs/protocol-frames.md"));
        int explained = 0;
        for (QString text : texts) {
            if (text.contains(ofOthers))
                continue;
            text.remove(QStringLiteral("\\r")).remove(QStringLiteral("\\n"));
            for (const QString &piece : text.split(QRegularExpression(QStringLiteral("%\\d"))))
                QVERIFY2(page.contains(piece.trimmed()), qPrintable(text));
            ++explained;
        }
        QVERIFY2(explained > 40, qPrintable(QString::number(explained)));
    }
};

QTEST_GUILESS_MAIN(TestPages)
#include "tst_pages.moc"
