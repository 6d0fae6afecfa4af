#include "explain.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @param path below the project's folder.
QString contentOf(const char *path)
{
    QFile file(QStringLiteral(TALVEX_SOURCES "/") + QLatin1String(path));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", path);
    return QString::fromUtf8(file.readAll());
}

QString manualPage()
{
    return contentOf("docs/man/vpnctl.1.md");
}

/// @return what bash offers after @p words, sorted; the last word is the one to complete.
QStringList offeredByBash(const QStringList &words)
{
    QProcess bash;
    bash.setWorkingDirectory(QStringLiteral(TALVEX_SOURCES "/tools/vpnctl/completion"));
    bash.start(QStringLiteral("/bin/bash"),
               QStringList{QStringLiteral("--norc"), QStringLiteral("-c"),
                           QStringLiteral("source \"$1\"; shift; COMP_WORDS=(\"$@\"); "
                                          "COMP_CWORD=$(($# - 1)); _vpnctl; "
                                          "printf '%s\\n' \"${COMPREPLY[@]}\""),
                           QStringLiteral("bash"),
                           QStringLiteral(TALVEX_SOURCES "/tools/vpnctl/completion/vpnctl.bash"),
                           QStringLiteral(TALVEX_VPNCTL)}
                   + words);
    bash.waitForFinished();
    QStringList offered = QString::fromUtf8(bash.readAllStandardOutput())
                              .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    offered.sort();
    return offered;
}

} // namespace

/// The manual page and the completions say what the program does.
class VpnctlDocuments : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKeyInTheDaemonsSourcesIsExplained()
    {
        QProcess grep;
        grep.setWorkingDirectory(QStringLiteral(TALVEX_SOURCES));
        // The platform's services have a key of their own, which no client of the daemon sees.
        grep.start(QStringLiteral("grep"),
                   {QStringLiteral("-rhoE"), QStringLiteral("--include=*.cpp"),
                    QStringLiteral("--exclude=macplatform_services.cpp"),
                    QStringLiteral("\"(label|warning)\\.[a-z0-9_]+\""), QStringLiteral("commands"),
                    QStringLiteral("daemon"), QStringLiteral("ipc"), QStringLiteral("privileges"),
                    QStringLiteral("vpncore")});
        QVERIFY(grep.waitForFinished());
        QStringList keys = QString::fromUtf8(grep.readAllStandardOutput())
                               .remove(QLatin1Char('"'))
                               .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        keys.removeDuplicates();
        QStringList explained = explainedKeys();
        keys.sort();
        explained.sort();
        QCOMPARE(keys, explained);
        QCOMPARE(keys.size(), 6);
        for (const QString &key : qAsConst(keys)) {
            const Explanation explanation = explain(key);
            QVERIFY2(explanation.text.endsWith(QLatin1Char('.')), qPrintable(key));
            QVERIFY2(explanation.advice.endsWith(QLatin1Char('.')), qPrintable(key));
            QVERIFY2(!explanation.text.contains(key), qPrintable(key));
        }
    }

    void adviceNamesWhatTheLaunchdJobHas()
    {
        const QString job = contentOf("packaging/macos/TalvexVpnd.plist");
        QVERIFY(job.contains(QStringLiteral("<string>com.talvex.talvexvpnd</string>")));
        QVERIFY(contentOf("packaging/macos/launcher")
                    .contains(QStringLiteral("local:TalvexFreeVpnIpcInterface")));
        for (const QString &text : {manualPage(), contentOf("tools/vpnctl/vpnsession.cpp")}) {
            QVERIFY(text.contains(QStringLiteral("system/com.talvex.talvexvpnd")));
            QVERIFY(text.contains(QStringLiteral("/Library/LaunchDaemons/TalvexVpnd.plist")));
        }
    }

    void bashOffersWhatFits_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QString>("offers");
        const auto row = [](const char *words, const char *offers) {
            QTest::newRow(words) << QString::fromLatin1(words).split(QLatin1Char(' '))
                                 << QString::fromLatin1(offers);
        };
        row("", "--help --json --version connect disconnect ping raw report status watch");
        row("conn", "connect");
        row("--json conn", "connect");
        row("ping ", "--help --json");
        row("connect --de", "--detach");
        row("raw x --e", "--endpoint");
        row("raw --timeout ", "");
        row("connect --port ", "");
        row("connect vpn", "vpnctl.bash");
        row("connect --json --ca vpn", "vpnctl.bash");
    }

    void bashOffersWhatFits()
    {
        QFETCH(QStringList, words);
        QFETCH(QString, offers);
        QCOMPARE(offeredByBash(words).join(QLatin1Char(' ')), offers);
    }
};

QTEST_GUILESS_MAIN(VpnctlDocuments)
#include "tst_documents.moc"
