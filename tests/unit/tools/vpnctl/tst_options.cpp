#include "options.h"

#include "problem.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @return what the command line asks for; fails the test, when it is wrong.
std::variant<Options, QString> read(const QString &arguments, int width = 80)
{
    return readCommandLine(QStringList{QStringLiteral("vpnctl")}
                               + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts),
                           width);
}

} // namespace

/// What the command line means.
class VpnctlOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyOptionIsRead()
    {
        const auto connect = std::get<Options>(
            read(QStringLiteral("--json connect --host a --port 7 --ca b --cert c --key=d --tcp "
                                "--accept-weaker --detach --timeout 8")));
        QVERIFY(connect.command == Options::Command::Connect);
        QVERIFY(connect.json && connect.acceptWeaker && connect.detach);
        QCOMPARE(connect.host, QStringLiteral("a"));
        QCOMPARE(connect.port, 7);
        QCOMPARE(connect.caPath + connect.certPath + connect.keyPath, QStringLiteral("bcd"));
        QVERIFY(connect.transport() == Transport::Tcp);
        QCOMPARE(connect.answerLimit.count(), 8);

        const auto raw = std::get<Options>(read(QStringLiteral("raw {} --server e --endpoint 9")));
        QVERIFY(raw.command == Options::Command::Raw);
        QCOMPARE(raw.message + raw.recordPath, QStringLiteral("{}e"));
        QCOMPARE(raw.endpoint, 9);
        QVERIFY(!raw.transport());
    }

    void profileNeedsNoOption()
    {
        for (const char *line :
             {"connect office.ovpn --udp", "connect --udp --config office.ovpn"}) {
            const auto options = std::get<Options>(read(QLatin1String(line)));
            QCOMPARE(options.configPath, QStringLiteral("office.ovpn"));
            QVERIFY(options.transport() == Transport::Udp);
        }
    }

    void textIsPrinted_data()
    {
        QTest::addColumn<QString>("start");
        const auto row = [](const char *arguments, const char *start) {
            QTest::newRow(arguments) << QString::fromLatin1(start);
        };
        for (const char *arguments : {"--help", "-h", "help", "help --json"})
            row(arguments, "Drive the VPN daemon");
        for (const char *arguments : {"connect --help", "help connect", "connect a --udp -h"})
            row(arguments, "Bring a tunnel up");
        for (const char *arguments : {"-v", "-V", "--version"})
            row(arguments, "vpnctl ");
    }

    void textIsPrinted()
    {
        QFETCH(QString, start);
        const QString text = std::get<QString>(read(QString::fromLatin1(QTest::currentDataTag())));
        QVERIFY2(text.startsWith(start), qPrintable(text));
        QVERIFY(text.endsWith(QLatin1Char('\n')));
    }

    void helpIsAsWideAsTheTerminal()
    {
        const QString wide = std::get<QString>(read(QStringLiteral("connect --help"), 0));
        const QString narrow = std::get<QString>(read(QStringLiteral("connect --help"), 50));
        QVERIFY(narrow.size() > wide.size());
        QCOMPARE(narrow.simplified(), wide.simplified());
        for (const QString &line :
             narrow.section(QStringLiteral("Examples"), 0, 0).split(QLatin1Char('\n')))
            QVERIFY2(line.size() <= 50, qPrintable(line));
    }

    void wrongUseIsExplained_data()
    {
        QTest::addColumn<QString>("text");
        const auto row = [](const char *arguments, const char *text) {
            QTest::newRow(arguments) << QString::fromLatin1(text);
        };
        const QString commands;
        row("", "A subcommand is required.");
        row("dance", "There is no command \"dance\".");
        row("ping --loud", "The following argument was not expected: --loud.");
        row("ping --endpoint 1", "The following arguments were not expected: 1 --endpoint.");
        row("disconnect", "--endpoint is required.");
        row("raw", "TEXT is required.");
        row("connect", "Nothing says where to connect to.");
        row("connect a --server b", "--config excludes --server.");
        row("connect --config a --host b --ca c", "--config excludes --host.");
        row("connect a --port 1", "--port requires --host.");
        row("connect --host a --cert b --key c", "--host requires --ca.");
        row("connect --host a.b:443 --ca c --cert d --key e", "--host takes no port.");
        row("connect --host a_/b --ca c --cert d --key e", "\"a_/b\" is no host name or address.");
        row("connect a --udp --tcp", "--udp excludes --tcp.");
        row("connect --host a --ca c --port 65536", "--port: Value 65536 not in range 1 to 65535.");
        row("connect --host a --ca c --port 0", "--port: Value 0 not in range 1 to 65535.");
        row("raw {} --timeout x", "--timeout: Value x not in range 1 to 3600.");
    }

    void wrongUseIsExplained()
    {
        QFETCH(QString, text);
        try {
            read(QString::fromLatin1(QTest::currentDataTag()));
            QFAIL("it was accepted");
        } catch (const Problem &problem) {
            QCOMPARE(problem.text, text);
            QVERIFY(problem.exitCode == ExitCode::WrongUse);
        }
    }
};

QTEST_GUILESS_MAIN(VpnctlOptions)
#include "tst_options.moc"
