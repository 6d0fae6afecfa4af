#include "dnsscripts.h"

#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

using Backups = QMap<QString, QByteArray>;

Q_DECLARE_METATYPE(Backups)

namespace {

const QString kListCall = "-listallnetworkservices ";
const QString kTrue = "result output  true";
const QString kFalse = "result output  false";

} // namespace

/// The scripts that restore, list and clear DNS settings: their texts, and what bash does with them
/// to the network services of a private root.
class DnsScripts : public QObject
{
    Q_OBJECT

private:
    /// Runs each of the three, which end well for whoever does not look at the log.
    static void runAll(std::chrono::milliseconds limit = vpncore::kDnsScriptLimit)
    {
        const LogCapture log;
        MacPlatform::updateDns(limit);
        QVERIFY(MacPlatform::isEmptyDns(limit));
        MacPlatform::cleanDns(limit);
        QCOMPARE(log.lines(), (QStringList{"\"\"", kTrue, "\"\"", kTrue, "\"\"", kTrue}));
    }

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void textsAreTheAgreedOnes_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("digest");
        QTest::newRow("restore")
            << vpncore::dnsRestoreScript()
            << "5176190f14d8369886dd78da998fcf8a35394bb5d794ad11ec24f6cce1bcfbe6";
        QTest::newRow("listing")
            << vpncore::dnsListingScript()
            << "ca6326809ec10f48b3ef1e5476ca01dc6710d4e01632e9a474b1ce7702f51f0b";
        QTest::newRow("clearing")
            << vpncore::dnsClearingScript()
            << "d6bf6eb92bf34fd2ef8af635b2c26cecbe76b5cea3123f875dafc9804e8c2584";
    }

    void textsAreTheAgreedOnes()
    {
        QFETCH(QString, script);
        QFETCH(QString, digest);
        QCOMPARE(QCryptographicHash::hash(script.toUtf8(), QCryptographicHash::Sha256).toHex(),
                 digest.toLatin1());
    }

    void backupsAreAppliedAndRemoved_data()
    {
        QTest::addColumn<Backups>("backups");
        QTest::addColumn<QStringList>("calls");
        const auto row = [](const char *name, const Backups &backups, const QStringList &calls) {
            QTest::newRow(name) << backups << calls;
        };
        row("none", {}, {});
        row("two servers, in their order", {{"dns_Wi-Fi", "192.0.2.2 192.0.2.1\n"}},
            {"-setdnsservers Wi-Fi 192.0.2.2 192.0.2.1 "});
        row("domains on lines of their own", {{"domain_iPhone USB", "a.test\nb.test"}},
            {"-setsearchdomains iPhone\\ USB a.test b.test "});
        row("servers before domains, service by service",
            {{"domain_iPhone USB", "c.test\n"},
             {"domain_Wi-Fi", "a.test b.test\n"},
             {"dns_iPhone USB", "Empty\n"},
             {"dns_Wi-Fi", "192.0.2.1\n"}},
            {"-setdnsservers Wi-Fi 192.0.2.1 ", "-setsearchdomains Wi-Fi a.test b.test ",
             "-setdnsservers iPhone\\ USB Empty ", "-setsearchdomains iPhone\\ USB c.test "});
    }

    void backupsAreAppliedAndRemoved()
    {
        QFETCH(Backups, backups);
        QFETCH(QStringList, calls);
        for (auto backup = backups.cbegin(); backup != backups.cend(); ++backup)
            standins::writeBackup("TalvexFreeVPN_" + backup.key(), backup.value());
        const LogCapture log;
        QCOMPARE(vpncore::hasDnsBackups(), !backups.isEmpty());
        MacPlatform::updateDns();
        QCOMPARE(standins::networksetupCalls(), QStringList(kListCall) + calls);
        QVERIFY(!vpncore::hasDnsBackups());
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{"\"\"", kTrue}));
    }

    void backupsOfServicesThatAreNotListedStay()
    {
        const QString file = "TalvexFreeVPN_dns_Ethernet";
        standins::writeBackup(file, "192.0.2.1\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::networksetupCalls(), QStringList(kListCall));
        QCOMPARE(standins::backupFiles(), QStringList(file));
    }

    void oneIpv4ServerMeansNotEmpty_data()
    {
        QTest::addColumn<QStringList>("servers");
        QTest::addColumn<QString>("printed");
        QTest::newRow("no server") << QStringList("Empty") << "";
        QTest::newRow("one IPv4 server") << QStringList("192.0.2.1") << "192.0.2.1\\n";
        QTest::newRow("two IPv4 servers") << QStringList{"192.0.2.1", "192.0.2.2"} << "";
        QTest::newRow("one IPv6 server") << QStringList("2001:db8::1") << "";
        QTest::newRow("five numbers") << QStringList("1.2.3.4.5") << "";
    }

    void oneIpv4ServerMeansNotEmpty()
    {
        QFETCH(QStringList, servers);
        QFETCH(QString, printed);
        // What looks like a server among the search domains does not count.
        standins::setDns("iPhone USB", servers, {"192.0.2.9"});
        const LogCapture log;
        QCOMPARE(MacPlatform::isEmptyDns(), printed.isEmpty());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{'"' + printed + '"', printed.isEmpty() ? kTrue : kFalse}));
    }

    void clearingSetsEveryServiceToEmptyAndLeavesTheBackups()
    {
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.1\n");
        standins::setState("networksetup/services", "Wi-Fi\n*Old Modem\n");
        const LogCapture log;
        MacPlatform::cleanDns();
        // The disabled service is listed with its asterisk, which is not its name.
        QCOMPARE(
            standins::networksetupCalls(),
            (QStringList{kListCall, "-setdnsservers Wi-Fi Empty ", "-setsearchdomains Wi-Fi Empty ",
                         "-setdnsservers \\*Old\\ Modem Empty ",
                         "-setsearchdomains \\*Old\\ Modem Empty "}));
        QCOMPARE(standins::backupFiles(), QStringList("TalvexFreeVPN_dns_Wi-Fi"));
        QVERIFY(log.lines().first().startsWith("\"*Old Modem is not a recognized network"));
        QCOMPARE(log.lines().last(), kTrue);
    }

    void withoutBashEverythingLooksFine()
    {
        // In a private root /bin is a link that may be taken away for a while.
        QVERIFY(QFile::rename("/bin", "/former-bin"));
        runAll();
        QVERIFY(QFile::rename("/former-bin", "/bin"));
    }

    void hangingScriptIsEndedAtTheLimit()
    {
        standins::wrapNetworksetup("exec sleep 120\n");
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.1\n");
        QElapsedTimer timer;
        timer.start();
        runAll(200ms);
        standins::wrapNetworksetup("exec $0.kept \"$@\"\n");
        QVERIFY2(timer.elapsed() >= 600 && timer.elapsed() < 5'000,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(standins::backupFiles(), QStringList("TalvexFreeVPN_dns_Wi-Fi"));
    }
};

QTEST_GUILESS_MAIN(DnsScripts)
#include "tst_dnsscripts.moc"
