#include "explain.h"
#include "options.h"

#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

QStringList commands()
{
    return {QStringLiteral("connect"), QStringLiteral("disconnect"), QStringLiteral("ping"),
            QStringLiteral("watch"), QStringLiteral("raw")};
}

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

/// @return the options that the program lists in the help of a command, sorted, with two dashes.
QStringList optionsOf(const QString &command)
{
    const CommandLine help =
        parseCommandLine({QStringLiteral("vpnctl"), command, QStringLiteral("--help")});
    static const QRegularExpression option(QStringLiteral("^  (?:-[a-z], )?(--[a-z]+)"),
                                           QRegularExpression::MultilineOption);
    QStringList options;
    QRegularExpressionMatchIterator matches = option.globalMatch(help.text);
    while (matches.hasNext())
        options.append(matches.next().captured(1));
    options.sort();
    return options;
}

/// @return what bash offers after @p words, sorted; the last word is the one to complete.
QStringList offeredByBash(const QStringList &words)
{
    QProcess bash;
    bash.start(QStringLiteral("/bin/bash"),
               QStringList{QStringLiteral("--norc"), QStringLiteral("-c"),
                           QStringLiteral("source \"$1\"; shift; COMP_WORDS=(\"$@\"); "
                                          "COMP_CWORD=$(($# - 1)); _vpnctl; "
                                          "printf '%s\\n' \"${COMPREPLY[@]}\""),
                           QStringLiteral("bash"),
                           QStringLiteral(TALVEX_SOURCES "/tools/vpnctl/completion/vpnctl.bash"),
                           QStringLiteral("vpnctl")}
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
    void manualPageHasEveryOption()
    {
        for (const QString &command : commands()) {
            const QStringList options = optionsOf(command);
            QVERIFY2(options.contains(QStringLiteral("--json")), qPrintable(command));
            for (const QString &option : options)
                QVERIFY2(manualPage().contains(QStringLiteral("**%1**").arg(option)),
                         qPrintable(option));
        }
    }

    void manualPageExplainsEveryKeyAsTheProgramDoes()
    {
        for (const QString &key : explainedKeys()) {
            QString escaped = key;
            escaped.replace(QLatin1Char('_'), QLatin1String("\\_"));
            // The page may go on where the program's sentence ends.
            QString text = explain(key).text;
            QVERIFY2(text.endsWith(QLatin1Char('.')), qPrintable(key));
            text.chop(1);
            const QString entry = QStringLiteral("**%1** : %2").arg(escaped, text);
            QVERIFY2(manualPage().simplified().contains(entry), qPrintable(entry));
        }
    }

    void manualPageHasEveryExitStatus()
    {
        for (const char *status : {"0", "1", "2", "3", "4", "130"}) {
            QVERIFY2(
                manualPage().contains(QStringLiteral("\n**%1**\n:   ").arg(QLatin1String(status))),
                status);
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
        QTest::addColumn<QStringList>("offers");
        QTest::newRow("nothing yet") << QStringList{QString()}
                                     << commands()
                + QStringList{QStringLiteral("--json"), QStringLiteral("--help"),
                              QStringLiteral("--version")};
        QTest::newRow("part of a command")
            << QStringList{QStringLiteral("conn")} << QStringList{QStringLiteral("connect")};
        QTest::newRow("file, which is bash's own affair")
            << QStringList{QStringLiteral("connect"), QStringLiteral("--config"), QString()}
            << QStringList();
        for (const QString &command : commands())
            QTest::newRow(qPrintable(command))
                << QStringList{command, QString()} << optionsOf(command);
    }

    void bashOffersWhatFits()
    {
        QFETCH(QStringList, words);
        QFETCH(QStringList, offers);
        offers.sort();
        QCOMPARE(offeredByBash(words), offers);
    }

    void zshKnowsEveryOption()
    {
        const QString completion = contentOf("tools/vpnctl/completion/_vpnctl");
        for (const QString &command : commands()) {
            QVERIFY2(completion.contains(QStringLiteral("        '%1:").arg(command)),
                     qPrintable(command));
            for (const QString &option : optionsOf(command)) {
                const bool isKnown = completion.contains(option + QLatin1Char('['))
                    || completion.contains(option + QLatin1Char('}'));
                QVERIFY2(isKnown, qPrintable(option));
            }
        }
    }
};

QTEST_GUILESS_MAIN(VpnctlDocuments)
#include "tst_documents.moc"
