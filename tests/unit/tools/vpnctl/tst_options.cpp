#include "options.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

CommandLine parse(const QString &arguments)
{
    return parseCommandLine(QStringList{QStringLiteral("vpnctl")}
                            + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

} // namespace

/// What the command line means.
class VpnctlOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commandMayStandAnywhere_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addRow("first") << QStringLiteral("disconnect --json --endpoint 7");
        QTest::addRow("last") << QStringLiteral("--endpoint 7 --json disconnect");
        QTest::addRow("between") << QStringLiteral("--json disconnect --endpoint=7");
    }

    void commandMayStandAnywhere()
    {
        QFETCH(QString, arguments);
        const CommandLine line = parse(arguments);
        QVERIFY2(line.options, qPrintable(line.text));
        QVERIFY(line.options->command == Options::Command::Disconnect);
        QCOMPARE(line.options->endpoint, 7);
        QVERIFY(line.options->json);
    }

    void helpNamesEveryCommand()
    {
        const CommandLine line = parse(QStringLiteral("--help"));
        QVERIFY(!line.isError);
        for (const char *command : {"connect", "disconnect", "ping", "watch", "raw"})
            QVERIFY2(line.text.contains(QStringLiteral("\n  %1 ").arg(QLatin1String(command))),
                     command);
    }

    void helpOfACommandHasItsOptionsAndAnExample()
    {
        const CommandLine line = parse(QStringLiteral("connect --help"));
        QVERIFY(!line.isError);
        QVERIFY(line.text.startsWith(QStringLiteral("Usage: vpnctl connect ")));
        QVERIFY(line.text.contains(QStringLiteral("--detach")));
        QVERIFY(line.text.contains(QStringLiteral("vpnctl connect --config office.ovpn\n")));
        QVERIFY(!line.text.contains(QStringLiteral("--endpoint <N>")));
    }

    void wrongUseIsExplained_data()
    {
        QTest::addColumn<QString>("text");
        const auto row = [](const char *arguments, const char *text) {
            QTest::newRow(arguments) << QString::fromLatin1(text);
        };
        row("", "Say what to do, for example \"vpnctl ping\".");
        row("dance", "There is no command \"dance\".");
        row("ping --loud", "Unknown option 'loud'.");
        row("ping --endpoint 1", "Unknown option 'endpoint'.");
        row("ping pong", "Do not know what to do with \"pong\".");
        row("disconnect", "Say which endpoint, with --endpoint N.");
        row("raw", "raw needs the JSON text to send.");
        const char *const sources =
            "Say where to connect to, with one of --config, --server and --host.";
        row("connect", sources);
        row("connect --config a --host b --ca c", sources);
        row("connect --config a --port 1", "--port, --ca, --cert and --key go with --host only.");
        row("connect --host a", "--host needs --ca, the authority's certificate.");
        row("connect --ca c --host a_/b", "\"a_/b\" is no host name or address.");
        row("connect --config a --udp --tcp", "--udp and --tcp exclude each other.");
        row("connect --host a --ca c --port 65536",
            "--port must be a number from 1 to 65535, not \"65536\".");
        row("connect --host a --ca c --port 0",
            "--port must be a number from 1 to 65535, not \"0\".");
        row("raw {} --timeout 3601", "--timeout must be a number from 1 to 3600, not \"3601\".");
    }

    void wrongUseIsExplained()
    {
        QFETCH(QString, text);
        const CommandLine line = parse(QString::fromLatin1(QTest::currentDataTag()));
        QVERIFY(line.isError);
        QCOMPARE(line.text, text);
    }
};

QTEST_GUILESS_MAIN(VpnctlOptions)
#include "tst_options.moc"
