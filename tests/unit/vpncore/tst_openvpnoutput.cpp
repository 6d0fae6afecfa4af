#include "openvpnoutput.h"

#include "ovpnconnection.h"

#include <QtTest/QtTest>

using vpncore::OpenvpnOutput;
using vpncore::OvpnConnection;

namespace {

constexpr int kConnected = 0;
constexpr int kFailed = 1;
constexpr int kUndecided = 2;

int verdictOf(const OpenvpnOutput &output)
{
    return OvpnConnection().analyseProcessOutput(output.judgedText());
}

} // namespace

/// What of the program's output counts, however it comes.
class OpenvpnOutputText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesThatAServerChoseDoNotCount_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("verdict");
        const auto row = [](const char *name, const char *text, int verdict) {
            QTest::newRow(name) << QByteArray(text) << verdict;
        };
        row("success", "2026 Initialization Sequence Completed\n", kConnected);
        row("success without a line feed", "Initialization Sequence Completed", kConnected);
        row("error", "ERROR: Cannot open TUN\n", kFailed);
        row("will retry", "x failed, will try again in 5 seconds\n", kFailed);
        row("IPv6 excuses an error", "ERROR\nLinux ipv6 command failed\n", kUndecided);
        row("nothing of it", "VERIFY OK: depth=1, CN=ca\nerror\n", kUndecided);
        row("success in a refused name",
            "VERIFY ERROR: depth=0, error=self-signed certificate: "
            "CN=Initialization Sequence Completed, serial=1\n",
            kFailed);
        row("success in an accepted name",
            "VERIFY OK: depth=0, CN=Initialization Sequence Completed\n", kUndecided);
        row("excuse in a refused name", "VERIFY ERROR: depth=0: CN=ipv6 command failed\n", kFailed);
        row("error in an accepted name", "VERIFY OK: depth=0, CN=ERROR\n", kUndecided);
        row("X509NAME", "VERIFY X509NAME ERROR: CN=Initialization Sequence Completed, must be a\n",
            kFailed);
        row("nsCertType", "VERIFY nsCertType ERROR: CN=ipv6 command failed, require\n", kFailed);
        row("KU", "VERIFY KU ERROR\n", kFailed);
        row("EKU", "VERIFY EKU OK\n", kUndecided);
        row("CRL", "VERIFY CRL: depth=0, CN=Initialization Sequence Completed, serial\n",
            kUndecided);
        row("SCRIPT", "VERIFY SCRIPT ERROR: depth=0, CN=Initialization Sequence Completed\n",
            kFailed);
        row("name with VERIFY in it",
            "VERIFY OK: depth=0, CN=VERIFY: Initialization Sequence Completed\n", kUndecided);
        row("the line after it counts",
            "VERIFY OK: depth=0, CN=a\nInitialization Sequence Completed\n", kConnected);
        row("name of an accepted server",
            "[Initialization Sequence Completed] Peer Connection Initiated with "
            "[AF_INET]192.0.2.2\n",
            kUndecided);
        row("unfinished name", "VERIFY ERROR: CN=Initialization Sequence Completed", kFailed);
    }

    /// In one piece, byte by byte, and cut anywhere in two.
    void namesThatAServerChoseDoNotCount()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, verdict);
        for (int cut = 0; cut <= text.size(); ++cut) {
            OpenvpnOutput output;
            output.add(text.left(cut));
            output.endPass();
            output.add(text.mid(cut));
            QCOMPARE(verdictOf(output), verdict);
        }
        OpenvpnOutput output;
        for (const char byte : text)
            output.add(QByteArray(1, byte));
        QCOMPARE(verdictOf(output), verdict);
    }

    void passEndsAtItsFirstZeroByte()
    {
        OpenvpnOutput output;
        output.add(QByteArray("caf\xe9 \0 Initialization Sequence Completed", 40));
        output.add("more of the same pass");
        QCOMPARE(output.endPass(), QString::fromLatin1("caf\xe9 "));
        QCOMPARE(verdictOf(output), kUndecided);
        output.add("next");
        QCOMPARE(output.endPass(), QStringLiteral("next"));
        QCOMPARE(output.endPass(), QString());
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
