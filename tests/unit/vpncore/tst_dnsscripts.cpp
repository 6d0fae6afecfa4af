#include "dnsscripts.h"

#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QCryptographicHash>
#include <QtTest/QtTest>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

const QString kNetworksetup = QStringLiteral("/sbin/networksetup");
const QString kWifi = QStringLiteral("Wi-Fi");
const QString kUsb = QStringLiteral("iPhone USB");

const QString kListCall = QStringLiteral("-listallnetworkservices ");
const QString kNothingPrinted = QStringLiteral("\"\"");
const QString kTrue = QStringLiteral("result output  true");
const QString kFalse = QStringLiteral("result output  false");

/// A backup file: its name without the common beginning, and its content.
struct Backup
{
    const char *name;
    const char *content;
};

/// The operations that run the scripts.
void run(const QString &operation, std::chrono::milliseconds limit = vpncore::kDnsScriptLimit)
{
    if (operation == QLatin1String("updateDns"))
        MacPlatform::updateDns(limit);
    else if (operation == QLatin1String("isEmptyDns"))
        QVERIFY(MacPlatform::isEmptyDns(limit));
    else
        MacPlatform::cleanDns(limit);
}

} // namespace

Q_DECLARE_METATYPE(QVector<Backup>)

/// The scripts that restore, list and clear DNS settings: their texts, and what bash does with them
/// to the network services of a private root.
class DnsScripts : public QObject
{
    Q_OBJECT

private:
    static void addOperations()
    {
        QTest::addColumn<QString>("operation");
        for (const char *operation : {"updateDns", "isEmptyDns", "cleanDns"})
            QTest::newRow(operation) << QString::fromLatin1(operation);
    }

    const QString m_standIn = QFile::symLinkTarget(kNetworksetup);

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void textsAreTheAgreedOnes_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("digest");
        QTest::newRow("restore")
            << vpncore::dnsRestoreScript() << 978
            << QByteArray("5176190f14d8369886dd78da998fcf8a35394bb5d794ad11ec24f6cce1bcfbe6");
        QTest::newRow("listing")
            << vpncore::dnsListingScript() << 530
            << QByteArray("ca6326809ec10f48b3ef1e5476ca01dc6710d4e01632e9a474b1ce7702f51f0b");
        QTest::newRow("clearing")
            << vpncore::dnsClearingScript() << 436
            << QByteArray("d6bf6eb92bf34fd2ef8af635b2c26cecbe76b5cea3123f875dafc9804e8c2584");
    }

    void textsAreTheAgreedOnes()
    {
        QFETCH(QString, script);
        QFETCH(int, length);
        QFETCH(QByteArray, digest);
        QCOMPARE(script.size(), length);
        QCOMPARE(QCryptographicHash::hash(script.toUtf8(), QCryptographicHash::Sha256).toHex(),
                 digest);
    }

    // --- Restoring ------------------------------------------------------------------------------

    void backupsAreAppliedAndRemoved_data()
    {
        QTest::addColumn<QVector<Backup>>("backups");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("none") << QVector<Backup>() << QStringList();
        QTest::newRow("two servers, in their order")
            << QVector<Backup>{{"dns_Wi-Fi", "192.0.2.2 192.0.2.1\n"}}
            << QStringList{QStringLiteral("-setdnsservers Wi-Fi 192.0.2.2 192.0.2.1 ")};
        QTest::newRow("values on lines of their own")
            << QVector<Backup>{{"dns_Wi-Fi", "192.0.2.1\n192.0.2.2\n\n2001:db8::1"}}
            << QStringList{QStringLiteral("-setdnsservers Wi-Fi 192.0.2.1 192.0.2.2 2001:db8::1 ")};
        QTest::newRow("empty") << QVector<Backup>{{"dns_Wi-Fi", "Empty"},
                                                  {"domain_Wi-Fi", "Empty\n"}}
                               << QStringList{QStringLiteral("-setdnsservers Wi-Fi Empty "),
                                              QStringLiteral("-setsearchdomains Wi-Fi Empty ")};
        QTest::newRow("no value, which networksetup refuses")
            << QVector<Backup>{{"dns_Wi-Fi", "\n"}}
            << QStringList{QStringLiteral("-setdnsservers Wi-Fi ")};
        QTest::newRow("servers before domains, service by service, blanks in the name")
            << QVector<Backup>{{"domain_iPhone USB", "c.test\n"},
                               {"domain_Wi-Fi", "a.test b.test\n"},
                               {"dns_iPhone USB", "192.0.2.2\n"},
                               {"dns_Wi-Fi", "192.0.2.1\n"}}
            << QStringList{QStringLiteral("-setdnsservers Wi-Fi 192.0.2.1 "),
                           QStringLiteral("-setsearchdomains Wi-Fi a.test b.test "),
                           QStringLiteral("-setdnsservers iPhone\\ USB 192.0.2.2 "),
                           QStringLiteral("-setsearchdomains iPhone\\ USB c.test ")};
    }

    void backupsAreAppliedAndRemoved()
    {
        QFETCH(QVector<Backup>, backups);
        QFETCH(QStringList, calls);
        for (const Backup &backup : qAsConst(backups)) {
            standins::writeBackup(QStringLiteral("TalvexFreeVPN_")
                                      + QString::fromLatin1(backup.name),
                                  backup.content);
        }
        MacPlatform::updateDns();
        QCOMPARE(standins::networksetupCalls(), QStringList{kListCall} + calls);
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void restoredSettingsAreTheFormerOnes()
    {
        standins::setDns(kWifi, {QStringLiteral("10.8.0.1")}, {QStringLiteral("tunnel.test")});
        standins::setDns(kUsb, {QStringLiteral("198.51.100.1")}, {QStringLiteral("b.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "Empty\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "a.test\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList());
        QCOMPARE(standins::searchDomains(kWifi), QStringList{QStringLiteral("a.test")});
        // Without backups, a service is left alone.
        QCOMPARE(standins::dnsServers(kUsb), QStringList{QStringLiteral("198.51.100.1")});
        QCOMPARE(standins::searchDomains(kUsb), QStringList{QStringLiteral("b.test")});
    }

    void backupOfAServiceThatIsNotListedStays_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("unknown service") << QStringLiteral("TalvexFreeVPN_dns_Ethernet");
        QTest::newRow("disabled service") << QStringLiteral("TalvexFreeVPN_dns_Old Modem");
        QTest::newRow("heading of the list") << QStringLiteral(
            "TalvexFreeVPN_dns_An asterisk (*) denotes that a network service is disabled.");
    }

    void backupOfAServiceThatIsNotListedStays()
    {
        QFETCH(QString, file);
        standins::writeBackup(file, "192.0.2.1\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::networksetupCalls(), QStringList{kListCall});
        QCOMPARE(standins::backupFiles(), QStringList{file});
    }

    void restoreLogsWhatWasPrintedAndTrue()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "\n");
        LogCapture log;
        MacPlatform::updateDns();
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("\"Usage: networksetup -setdnsservers "
                                             "<networkservice> <dns1> [dns2] [...]\\n\""),
                              kTrue}));
        log.clear();
        MacPlatform::updateDns();
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{kNothingPrinted, kTrue}));
    }

    // --- Listing --------------------------------------------------------------------------------

    void listingAsksEachServiceAndChangesNothing()
    {
        MacPlatform::isEmptyDns();
        QCOMPARE(standins::networksetupCalls(),
                 (QStringList{kListCall, QStringLiteral("-getdnsservers Wi-Fi "),
                              QStringLiteral("-getsearchdomains Wi-Fi "),
                              QStringLiteral("-getdnsservers Thunderbolt\\ Bridge "),
                              QStringLiteral("-getsearchdomains Thunderbolt\\ Bridge "),
                              QStringLiteral("-getdnsservers iPhone\\ USB "),
                              QStringLiteral("-getsearchdomains iPhone\\ USB "),
                              QStringLiteral("-getdnsservers \\*Old\\ Modem "),
                              QStringLiteral("-getsearchdomains \\*Old\\ Modem ")}));
    }

    void oneIpv4ServerMeansNotEmpty_data()
    {
        QTest::addColumn<QStringList>("wifi");
        QTest::addColumn<QStringList>("usb");
        QTest::addColumn<QString>("printed");
        const QString none = QStringLiteral("Empty");
        const QString one = QStringLiteral("192.0.2.1");
        const QString two = QStringLiteral("192.0.2.2");
        const QString ipv6 = QStringLiteral("2001:db8::1");
        const auto row = [](const char *name, const QStringList &wifi, const QStringList &usb,
                            const char *printed = "") {
            QTest::newRow(name) << wifi << usb << QString::fromLatin1(printed);
        };
        row("no server", {none}, {none});
        row("one IPv4 server", {one}, {none}, "192.0.2.1\\n");
        row("one IPv4 server each", {one}, {two}, "192.0.2.1\\n192.0.2.2\\n");
        row("two IPv4 servers", {one, two}, {none});
        row("one IPv6 server", {ipv6}, {none});
        row("one IPv4 and one IPv6 server", {one, ipv6}, {none});
        row("three and five numbers", {QStringLiteral("192.0.2")}, {QStringLiteral("1.2.3.4.5")});
        row("a name", {QStringLiteral("dns.test")}, {none});
    }

    void oneIpv4ServerMeansNotEmpty()
    {
        QFETCH(QStringList, wifi);
        QFETCH(QStringList, usb);
        QFETCH(QString, printed);
        // What looks like a server among the search domains does not count.
        standins::setDns(kWifi, wifi, {QStringLiteral("192.0.2.9")});
        standins::setDns(kUsb, usb, {QStringLiteral("Empty")});
        const LogCapture log;
        QCOMPARE(MacPlatform::isEmptyDns(), printed.isEmpty());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("\"%1\"").arg(printed),
                              printed.isEmpty() ? kTrue : kFalse}));
    }

    // --- Clearing -------------------------------------------------------------------------------

    void clearingSetsEveryServiceToEmptyAndLeavesTheBackups()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        MacPlatform::cleanDns();
        QCOMPARE(standins::networksetupCalls(),
                 (QStringList{kListCall, QStringLiteral("-setdnsservers Wi-Fi Empty "),
                              QStringLiteral("-setsearchdomains Wi-Fi Empty "),
                              QStringLiteral("-setdnsservers Thunderbolt\\ Bridge Empty "),
                              QStringLiteral("-setsearchdomains Thunderbolt\\ Bridge Empty "),
                              QStringLiteral("-setdnsservers iPhone\\ USB Empty "),
                              QStringLiteral("-setsearchdomains iPhone\\ USB Empty "),
                              QStringLiteral("-setdnsservers \\*Old\\ Modem Empty "),
                              QStringLiteral("-setsearchdomains \\*Old\\ Modem Empty ")}));
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
        // The disabled service is listed with its asterisk, which is not its name.
        const QString refusal = QStringLiteral("*Old Modem is not a recognized network service.\\n"
                                               "** Error: The parameters were not valid.\\n");
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QLatin1Char('"') + refusal + refusal + QLatin1Char('"'), kTrue}));
    }

    // --- When something is missing or hangs -----------------------------------------------------

    void withoutBashEverythingLooksFine_data() { addOperations(); }

    void withoutBashEverythingLooksFine()
    {
        QFETCH(QString, operation);
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("Empty")});
        // In a private root /bin is a link that may be taken away for a while.
        QVERIFY(QFile::rename(QStringLiteral("/bin"), QStringLiteral("/former-bin")));
        const LogCapture log;
        run(operation);
        QVERIFY(QFile::rename(QStringLiteral("/former-bin"), QStringLiteral("/bin")));
        QCOMPARE(log.lines(), (QStringList{kNothingPrinted, kTrue}));
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("192.0.2.1")});
    }

    void hangingScriptIsEndedAtTheLimit_data() { addOperations(); }

    void hangingScriptIsEndedAtTheLimit()
    {
        QFETCH(QString, operation);
        // It hangs until init() removes the file.
        QFile hang(QStringLiteral("/tmp/hang"));
        QVERIFY(hang.open(QIODevice::WriteOnly));
        QVERIFY(QFile::remove(kNetworksetup));
        QFile tool(kNetworksetup);
        QVERIFY(tool.open(QIODevice::WriteOnly));
        tool.write("#!/bin/bash\nwhile [[ -e /tmp/hang ]]; do sleep 0.05; done\n");
        tool.close();
        QVERIFY(tool.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");

        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        run(operation, 200ms);
        const qint64 duration = timer.elapsed();
        QVERIFY(QFile::remove(kNetworksetup) && QFile::link(m_standIn, kNetworksetup));

        QVERIFY2(duration >= 200 && duration < 5'000, qPrintable(QString::number(duration)));
        QCOMPARE(log.lines(), (QStringList{kNothingPrinted, kTrue}));
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }
};

QTEST_GUILESS_MAIN(DnsScripts)
#include "tst_dnsscripts.moc"
