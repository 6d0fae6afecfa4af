#include "openvpnoutput.h"

#include "ovpnconnection.h"

#include <QtTest/QtTest>

using vpncore::OpenvpnOutput;

namespace {

constexpr int kConnected = 0;
constexpr int kFailed = 1;
constexpr int kUndecided = 2;

int verdictOf(const OpenvpnOutput &output)
{
    return vpncore::OvpnConnection().analyseProcessOutput(output.judgedText());
}

} // namespace

/// What of the program's output counts, however it comes.
class OpenvpnOutputText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outputIsJudged_data()
    {
        QTest::addColumn<int>("verdict");
        const auto row = [](const char *text, int verdict) {
            QTest::newRow(QByteArray(text).replace("SUCCESS", "Initialization Sequence Completed"))
                << verdict;
        };
        row("", kUndecided);
        row("SUCCESS", kConnected);
        row("2026 SUCCESS\n", kConnected);
        row("a\nERROR: SUCCESS\nb", kConnected);
        row("ERROR\nipv6 command failed\nSUCCESS", kConnected);
        row("initialization sequence completed\n", kUndecided);
        row("ERROR", kFailed);
        row("AUTH_ERRORS\n", kFailed);
        row("error\nError: x\n", kUndecided);
        row("connect to [AF_INET]192.0.2.1 failed, will try again in 5 s\n", kFailed);
        row("Failed, will try again in 5 seconds\n", kUndecided);
        row("ERROR: Linux route -6 add ipv6 command failed\n", kUndecided);
        row("ipv6 command failed\nERROR: x\n", kUndecided);
        row("failed, will try again in 5 s\nipv6 command failed\n", kUndecided);
        row("ERROR: IPv6 command failed\n", kFailed);

        // Names that a server chose do not count.
        row("VERIFY ERROR: depth=0, error=self-signed certificate: CN=SUCCESS, serial=1\n",
            kFailed);
        row("VERIFY ERROR: CN=SUCCESS", kFailed);
        row("VERIFY ERROR: depth=0: CN=ipv6 command failed\n", kFailed);
        row("VERIFY X509NAME ERROR: CN=SUCCESS, must be a\n", kFailed);
        row("VERIFY KU ERROR\n", kFailed);
        row("VERIFY OK: depth=0, CN=ERROR\n", kUndecided);
        row("VERIFY OK: depth=0, CN=VERIFY: SUCCESS\n", kUndecided);
        row("VERIFY OK: depth=0, CN=a\nSUCCESS\n", kConnected);
        row("[SUCCESS] Peer Connection Initiated with [AF_INET]192.0.2.2\n", kUndecided);
    }

    /// In one piece, byte by byte, cut anywhere in two, and before its last line is complete.
    void outputIsJudged()
    {
        QFETCH(int, verdict);
        const QByteArray text = QTest::currentDataTag();
        OpenvpnOutput incomplete;
        incomplete.add(text.trimmed());
        QCOMPARE(verdictOf(incomplete), verdict);
        OpenvpnOutput bytewise;
        for (int cut = 0; cut < text.size(); ++cut) {
            OpenvpnOutput output;
            output.add(text.left(cut));
            output.endPass();
            output.add(text.mid(cut));
            QCOMPARE(verdictOf(output), verdict);
            bytewise.add(text.mid(cut, 1));
        }
        QCOMPARE(verdictOf(bytewise), verdict);
    }

    void passEndsAtItsFirstZeroByte()
    {
        OpenvpnOutput output;
        output.add(QByteArray("caf\xe9 \0 Initialization Sequence Completed", 40));
        output.add("more of the same pass");
        QCOMPARE(output.endPass(), "caf\u00e9 ");
        QCOMPARE(verdictOf(output), kUndecided);
        output.add("next");
        QCOMPARE(output.endPass(), "next");
        QCOMPARE(output.endPass(), "");
    }

    void floodCostsNoMemory_data()
    {
        QTest::addColumn<QByteArray>("piece");
        QTest::newRow("lines") << QByteArray("a line of no interest\n").repeated(100);
        QTest::newRow("one line without end") << QByteArray(3'000, 'a');
        QTest::newRow("a name without end") << "VERIFY ERROR: CN=" + QByteArray(3'000, 'a');
    }

    void floodCostsNoMemory()
    {
        QFETCH(QByteArray, piece);
        OpenvpnOutput output;
        output.add("a first ERROR\n");
        for (int i = 0; i < 1'000; ++i) {
            output.add(piece);
            QVERIFY(output.judgedText().size() < 8'192);
        }
        QCOMPARE(output.endPass().size(), 1'048'576);
        QCOMPARE(verdictOf(output), kFailed);
        output.add("Initialization Sequence Completed\n");
        // The rest of the line still belongs to a name that does not count.
        QCOMPARE(verdictOf(output), piece.startsWith("VERIFY") ? kFailed : kConnected);
    }
};

QTEST_GUILESS_MAIN(OpenvpnOutputText)
#include "tst_openvpnoutput.moc"
