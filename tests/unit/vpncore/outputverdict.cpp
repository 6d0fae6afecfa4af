#include "ovpnconnection.h"

#include <QtTest/QtTest>

using vpncore::OvpnConnection;

namespace {

constexpr int kConnected = 0;
constexpr int kFailed = 1;
constexpr int kUndecided = 2;

} // namespace

/// What the daemon concludes from the text that `openvpn` prints.
class OutputVerdict : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void verdictsHaveTheirNumbers()
    {
        QCOMPARE(int(OvpnConnection::Connected), kConnected);
        QCOMPARE(int(OvpnConnection::Failed), kFailed);
        QCOMPARE(int(OvpnConnection::Undecided), kUndecided);
    }

    void outputIsJudged_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<int>("verdict");
        const auto row = [](const char *name, const char *output, int verdict) {
            QTest::newRow(name) << QString::fromUtf8(output) << verdict;
        };

        row("nothing", "", kUndecided);
        row("line feeds only", "\r\n\n", kUndecided);
        row("other text", "2026-01-01 00:00:00 TCP/UDP: Preserving recently used remote address\n",
            kUndecided);

        row("success alone", "Initialization Sequence Completed", kConnected);
        row("success in the middle of a line",
            "2026-01-01 00:00:00 Initialization Sequence Completed, 0\n", kConnected);
        row("success among other lines", "before\nInitialization Sequence Completed\nafter\n",
            kConnected);
        row("success after ERROR", "ERROR: x\nInitialization Sequence Completed\n", kConnected);
        row("success before ERROR", "Initialization Sequence Completed\nERROR: x\n", kConnected);
        row("success with a coming retry",
            "failed, will try again in 5 seconds\nInitialization Sequence Completed\n", kConnected);
        row("success with a failed IPv6 command",
            "ERROR: x\nipv6 command failed\nInitialization Sequence Completed\n", kConnected);
        row("success with errors of its own line",
            "Initialization Sequence Completed With Errors ( see above )\n", kConnected);
        row("success in lower case", "initialization sequence completed\n", kUndecided);
        row("success in upper case", "INITIALIZATION SEQUENCE COMPLETED\n", kUndecided);
        row("success with two blanks", "Initialization  Sequence Completed\n", kUndecided);
        row("success over two lines", "Initialization Sequence\nCompleted\n", kUndecided);
        row("success cut short", "Initialization Sequence Complete", kUndecided);

        row("ERROR alone", "ERROR", kFailed);
        row("ERROR at the start", "ERROR: Cannot open TUN/TAP dev\n", kFailed);
        row("ERROR in the middle of a line", "2026-01-01 Linux route add command ERROR: x\n",
            kFailed);
        row("ERROR inside a word", "AUTH_ERRORS\n", kFailed);
        row("error in lower case", "error\n", kUndecided);
        row("error with a capital", "Error: x\n", kUndecided);
        row("ERROR over two lines", "ERR\nOR\n", kUndecided);

        row("coming retry alone", "failed, will try again in", kFailed);
        row("coming retry in the middle of a line",
            "TCP: connect to [AF_INET]192.0.2.1:443 failed, will try again in 5 seconds\n",
            kFailed);
        row("coming retry with a capital", "Failed, will try again in 5 seconds\n", kUndecided);
        row("coming retry cut short", "failed, will try again\n", kUndecided);
        row("both failures", "ERROR: x\nfailed, will try again in 5 seconds\n", kFailed);

        row("failed IPv6 command alone", "ipv6 command failed\n", kUndecided);
        row("failed IPv6 command after ERROR", "ERROR: Linux route -6 add ipv6 command failed\n",
            kUndecided);
        row("failed IPv6 command before ERROR", "ipv6 command failed\nERROR: x\n", kUndecided);
        row("failed IPv6 command with a coming retry",
            "failed, will try again in 5 seconds\nipv6 command failed\n", kUndecided);
        row("failed IPv6 command with both failures",
            "ERROR: x\nfailed, will try again in 5 seconds\nipv6 command failed\n", kUndecided);
        row("failed IPv6 command with capitals", "ERROR: IPv6 command failed\n", kFailed);
        row("failed IPv6 command in upper case", "ERROR: IPV6 COMMAND FAILED\n", kFailed);
    }

    void outputIsJudged()
    {
        QFETCH(QString, output);
        QFETCH(int, verdict);
        QCOMPARE(OvpnConnection().analyseProcessOutput(output), verdict);
    }

    void failedIpv6CommandExcusesEveryLaterErrorOfTheText()
    {
        OvpnConnection connection;
        QString output = QStringLiteral("starting\n");
        QCOMPARE(connection.analyseProcessOutput(output), kUndecided);
        output += QStringLiteral("ERROR: ipv6 command failed\n");
        QCOMPARE(connection.analyseProcessOutput(output), kUndecided);
        output += QStringLiteral("ERROR: something else\n");
        QCOMPARE(connection.analyseProcessOutput(output), kUndecided);
        output += QStringLiteral("Initialization Sequence Completed\n");
        QCOMPARE(connection.analyseProcessOutput(output), kConnected);
    }

    void markerThatIsCompletedByLaterTextCounts()
    {
        OvpnConnection connection;
        QString output = QStringLiteral("Initialization Sequ");
        QCOMPARE(connection.analyseProcessOutput(output), kUndecided);
        output += QStringLiteral("ence Completed\n");
        QCOMPARE(connection.analyseProcessOutput(output), kConnected);
    }

    void nothingIsRememberedOfFormerTexts()
    {
        OvpnConnection connection;
        QCOMPARE(connection.analyseProcessOutput(QStringLiteral("ipv6 command failed")),
                 kUndecided);
        QCOMPARE(connection.analyseProcessOutput(QStringLiteral("ERROR")), kFailed);
        QCOMPARE(connection.analyseProcessOutput(QString()), kUndecided);
    }

    void markerIsFoundAfterAZeroCharacter()
    {
        QString output = QStringLiteral("before");
        output += QChar(QChar::Null);
        output += QStringLiteral("ERROR");
        QCOMPARE(OvpnConnection().analyseProcessOutput(output), kFailed);
    }

    void markerIsFoundAtTheEndOfALongText()
    {
        const QString output = QString(10'000'000, QLatin1Char('x')) + QStringLiteral("ERROR");
        QCOMPARE(OvpnConnection().analyseProcessOutput(output), kFailed);
    }
};

QTEST_GUILESS_MAIN(OutputVerdict)
#include "outputverdict.moc"
