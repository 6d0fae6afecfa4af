#include "operationresult.h"
#include "vpnserverinformation.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

namespace {

QString contentOf(const QString &path)
{
    QFile file(QStringLiteral(TALVEX_SOURCES "/") + path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    return QString::fromUtf8(file.readAll());
}

/// The files of the repository, relative to it, without what a build leaves.
QStringList filesOfTheRepository()
{
    const QDir root(QStringLiteral(TALVEX_SOURCES));
    QStringList files;
    QDirIterator all(root.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (all.hasNext()) {
        const QString file = root.relativeFilePath(all.next());
        static const QRegularExpression left(QStringLiteral("^(build[^/]*|\\.git|\\.cache)/"));
        if (!file.contains(left))
            files.append(file);
    }
    return files;
}

/// The C++ sources in a folder and those below it, one after the other.
QString sourcesIn(const QString &folder)
{
    QString text;
    for (const QString &file : filesOfTheRepository()) {
        if (file.startsWith(folder + QLatin1Char('/'))
            && (file.endsWith(QLatin1String(".cpp")) || file.endsWith(QLatin1String(".mm"))))
            text += contentOf(file);
    }
    return text;
}

/// What the first group captures, for every match.
QStringList allMatches(const QString &pattern, const QString &text)
{
    QStringList found;
    QRegularExpressionMatchIterator matches =
        QRegularExpression(pattern, QRegularExpression::MultilineOption).globalMatch(text);
    while (matches.hasNext())
        found.append(matches.next().captured(1));
    return found;
}

/// A page without its blocks of commands and dumps.
QString proseOf(QString page)
{
    static const QRegularExpression block(QStringLiteral("^```.*?^```$"),
                                          QRegularExpression::MultilineOption
                                              | QRegularExpression::DotMatchesEverythingOption);
    return page.remove(block);
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
QStringList deadLinksOf(const QString &name, const QString &page)
{
    QStringList dead;
    for (const QString &link :
         allMatches(QStringLiteral("\\]\\((?![a-z]+:)([^)\\s]+)\\)"), proseOf(page))) {
        const QString path = link.section(QLatin1Char('#'), 0, 0);
        const QString target = path.isEmpty()
            ? name
            : QDir::cleanPath(QFileInfo(name).path() + QLatin1Char('/') + path);
        const QString anchor = link.section(QLatin1Char('#'), 1);
        const bool isThere = !target.startsWith(QLatin1String(".."))
            && QFileInfo::exists(QStringLiteral(TALVEX_SOURCES "/") + target);
        if (!isThere
            || (!anchor.isEmpty()
                && !anchorsOf(path.isEmpty() ? page : contentOf(target)).contains(anchor)))
            dead.append(link);
    }
    return dead;
}

/// Words in backticks that look like paths or files of the repository, and are none: they begin
/// with one of its folders, or end like the name of a file.
QStringList wrongPathsOf(const QString &page)
{
    static const QStringList files = filesOfTheRepository();
    static const QRegularExpression fileName(
        QStringLiteral("^[^/]+\\.(?:md|h|cpp|mm|rep|cmake|plist|sh|yml)$"));
    QStringList wrong;
    for (QString word : allMatches(QStringLiteral("`([\\w./+-]+)`"), proseOf(page))) {
        const auto isOneWith = [&word](const QString &start, const QString &end) {
            return std::any_of(files.begin(), files.end(), [&](const QString &file) {
                return file == word || (!start.isEmpty() && file.startsWith(start))
                    || (!end.isEmpty() && file.endsWith(end));
            });
        };
        if (word.endsWith(QLatin1Char('/')))
            word.chop(1);
        const QString folder = word.section(QLatin1Char('/'), 0, 0) + QLatin1Char('/');
        if (word.contains(QLatin1Char('/')) && isOneWith(folder, {})) {
            if (!isOneWith(word + QLatin1Char('/'), {}))
                wrong.append(word);
        } else if (word.contains(fileName) && !isOneWith({}, QLatin1Char('/') + word)) {
            wrong.append(word);
        }
    }
    return wrong;
}

QString protocol()
{
    return contentOf(QStringLiteral("docs/protocol.md"));
}

/// A dump of a record in the page: its bytes, and the values that stand beside them.
struct Dump
{
    QByteArray bytes;
    QMap<QString, QString> values;
};

Dump dumpUnder(const QString &heading)
{
    const QString section = protocol().section(QStringLiteral("\n### ") + heading, 1);
    const QString block =
        section.section(QStringLiteral("```text\n"), 1).section(QStringLiteral("```"), 0, 0);
    Dump dump;
    for (const QString &line : block.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        static const QRegularExpression parts(
            QStringLiteral("^((?:[0-9a-f]{2} ?)+)(?: +(\\w+) +(.*))?$"));
        const QRegularExpressionMatch match = parts.match(line);
        if (!match.hasMatch())
            qFatal("not a line of a dump: %s", qPrintable(line));
        dump.bytes += QByteArray::fromHex(match.captured(1).toLatin1());
        if (match.capturedLength(2) > 0)
            dump.values.insert(match.captured(2), match.captured(3));
    }
    return dump;
}

QString textOf(const QString &value)
{
    return value == QLatin1String("null") ? QString() : value.mid(1, value.size() - 2);
}

template<typename Record>
QByteArray written(const Record &record)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << record;
    return bytes;
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
        for (const QString &file : filesOfTheRepository()) {
            if (file.endsWith(QLatin1String(".md")))
                QTest::newRow(qPrintable(file)) << file;
        }
    }

    void linksAndPathsLeadSomewhere()
    {
        QFETCH(QString, name);
        const QString page = contentOf(name);
        QCOMPARE(deadLinksOf(name, page).join(QLatin1Char(' ')), QString());
        QCOMPARE(wrongPathsOf(page).join(QLatin1Char(' ')), QString());
    }

    void deadLinksAndWrongPathsAreSeen()
    {
        const QString page = QStringLiteral(
            "# A page\n[a](protocol.md) [b](#a-page) [c](../ipc/) [d](https://example.test/x)\n"
            "[e](gone.md) [f](protocol.md#gone) [g](#gone) [h](../../etc)\n"
            "`ipc/ipcserver.h` `ipcserver.h` `/tmp/x` `other/x` `ipc/gone.h` `gone.cpp`\n"
            "```\n[i](gone.md) `ipc/gone.h`\n# Gone\n```\n");
        QCOMPARE(deadLinksOf(QStringLiteral("docs/protocol.md"), page).join(QLatin1Char(' ')),
                 QStringLiteral("gone.md protocol.md#gone #gone ../../etc"));
        QCOMPARE(wrongPathsOf(page).join(QLatin1Char(' ')), QStringLiteral("ipc/gone.h gone.cpp"));
    }

    void dumpOfTheServerRecordIsWhatTheStreamWrites()
    {
        const Dump dump = dumpUnder(QStringLiteral("VpnServerInformation"));
        VpnServerInformation server;
        server.name = textOf(dump.values[QStringLiteral("name")]);
        server.id = dump.values[QStringLiteral("id")].toInt();
        server.info = textOf(dump.values[QStringLiteral("info")]);
        server.host = textOf(dump.values[QStringLiteral("host")]);
        server.ca = textOf(dump.values[QStringLiteral("ca")]);
        server.key = textOf(dump.values[QStringLiteral("key")]);
        server.cert = textOf(dump.values[QStringLiteral("cert")]);
        server.udpPort = dump.values[QStringLiteral("udpPort")].toInt();
        server.tcpPort = dump.values[QStringLiteral("tcpPort")].toInt();
        QVERIFY(!server.host.isEmpty());
        QCOMPARE(dump.bytes.toHex(' '), written(server).toHex(' '));
    }

    void dumpOfTheResultIsWhatTheStreamWrites()
    {
        const Dump dump = dumpUnder(QStringLiteral("OperationResult"));
        OperationResult result;
        result.code = dump.values[QStringLiteral("code")].toInt();
        result.success = dump.values[QStringLiteral("success")] == QLatin1String("true");
        result.message = textOf(dump.values[QStringLiteral("message")]);
        QVERIFY(!result.message.isEmpty());
        QCOMPARE(dump.bytes.toHex(' '), written(result).toHex(' '));
    }

    void everyLogLineOfTheRequestPathIsExplained()
    {
        QString sources;
        for (const char *folder : {"daemon", "ipc", "commands", "vpncore"})
            sources += sourcesIn(QString::fromLatin1(folder));
        QStringList texts = allMatches(
            QStringLiteral("q(?:Debug|Warning)\\(\\)\\s*<< (?:QStringLiteral\\()?\"(.*?)\""),
            sources);
        // Why a connection was closed, or a socket not opened.
        texts += allMatches(QStringLiteral("QStringLiteral\\(\"((?:the|it|its|there|clients|too|a "
                                           "frame) [^\"]*)\"\\)"),
                            sourcesIn(QStringLiteral("ipc")));
        QVERIFY2(texts.size() > 40, qPrintable(QString::number(texts.size())));
        const QString page = contentOf(QStringLiteral("docs/operations.md"))
            + contentOf(QStringLiteral("docs/protocol-frames.md"));
        for (QString text : texts) {
            text.remove(QStringLiteral("\\r")).remove(QStringLiteral("\\n"));
            for (const QString &piece : text.split(QRegularExpression(QStringLiteral("%\\d"))))
                QVERIFY2(page.contains(piece.trimmed()), qPrintable(text));
        }
    }
};

QTEST_GUILESS_MAIN(TestPages)
#include "tst_pages.moc"
