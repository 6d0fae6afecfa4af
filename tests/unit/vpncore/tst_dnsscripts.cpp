#include "dnsscripts.h"

#include "checkdns.h"
#include "logcapture.h"
#include "standins.h"
#include "macplatform.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <unistd.h>

using vpncore::MacPlatform;

namespace {

const QString kNetworksetup = QStringLiteral("/sbin/networksetup");
const QString kWifi = QStringLiteral("Wi-Fi");
const QString kUsb = QStringLiteral("iPhone USB");

const QString kListCall = QStringLiteral("-listallnetworkservices ");
const QString kNothingPrinted = QStringLiteral("\"\"");
const QString kTrue = QStringLiteral("result output  true");
const QString kFalse = QStringLiteral("result output  false");

/// The restore script can be run in two ways, which differ in the second log line.
enum class Restore { AtStart, AfterDisconnect };

QString restoreLine(Restore way)
{
    return way == Restore::AtStart ? QStringLiteral("check DNS result  true") : kTrue;
}

void run(Restore way)
{
    if (way == Restore::AtStart)
        checkDNS();
    else
        MacPlatform::updateDns();
}

/// Puts a bash script in the place of networksetup.
bool replaceNetworksetup(const QByteArray &script)
{
    QFile::remove(kNetworksetup);
    QFile file(kNetworksetup);
    const QByteArray text = "#!/bin/bash\n" + script;
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size()
        && file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

/// @return the processes whose parent is this one and that have not been waited for.
QVector<qint64> childProcesses()
{
    QVector<qint64> pids;
    const auto entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(entry));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = stat.readAll();
        // After the name in parentheses: the state and the parent.
        const auto fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.value(1).toInt() == getpid())
            pids.append(entry.toLongLong());
    }
    return pids;
}

QByteArray sha256(const QString &text)
{
    return QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex();
}

} // namespace

Q_DECLARE_METATYPE(Restore)

/// The scripts that restore, list and clear DNS settings: their texts, and what they do to the
/// network services of a private root.
class DnsScripts : public QObject
{
    Q_OBJECT

private:
    static void addBothRestores()
    {
        QTest::addColumn<Restore>("way");
        QTest::newRow("at start") << Restore::AtStart;
        QTest::newRow("after disconnect") << Restore::AfterDisconnect;
    }

    QString m_standIn;

private Q_SLOTS:
    void initTestCase()
    {
        m_standIn = QFile::symLinkTarget(kNetworksetup);
        QVERIFY(!m_standIn.isEmpty());
    }

    void cleanup()
    {
        QFile::remove(kNetworksetup);
        QVERIFY(QFile::link(m_standIn, kNetworksetup));
        QDir(QStringLiteral("/var/root/stand-ins")).removeRecursively();
        QDir(standins::dataFolder()).removeRecursively();
    }

    // --- The texts ------------------------------------------------------------------------------

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
        QCOMPARE(sha256(script), digest);
    }

    // --- Restoring ------------------------------------------------------------------------------

    void restoreWithoutBackupsOnlyListsTheServices_data() { addBothRestores(); }

    void restoreWithoutBackupsOnlyListsTheServices()
    {
        QFETCH(Restore, way);
        run(way);
        QCOMPARE(standins::networksetupCalls(), QStringList{kListCall});
    }

    void restoreWithoutBackupsLogsTwoLines_data() { addBothRestores(); }

    void restoreWithoutBackupsLogsTwoLines()
    {
        QFETCH(Restore, way);
        const LogCapture log;
        run(way);
        const QStringList expected{kNothingPrinted, restoreLine(way)};
        QCOMPARE(log.lines(), expected);
        QCOMPARE(log.lines(QtDebugMsg), expected);
    }

    void restoreWithoutBackupsLeavesTheSettings()
    {
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("a.test")});
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("192.0.2.1")});
        QCOMPARE(standins::searchDomains(kWifi), QStringList{QStringLiteral("a.test")});
    }

    void twoServersAreRestoredInTheirOrder_data() { addBothRestores(); }

    void twoServersAreRestoredInTheirOrder()
    {
        QFETCH(Restore, way);
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.2 192.0.2.1\n");
        run(way);
        QCOMPARE(standins::dnsServers(kWifi),
                 (QStringList{QStringLiteral("192.0.2.2"), QStringLiteral("192.0.2.1")}));
        QCOMPARE(
            standins::networksetupCalls(),
            (QStringList{kListCall, QStringLiteral("-setdnsservers Wi-Fi 192.0.2.2 192.0.2.1 ")}));
    }

    void successfulRestoreLogsNothingMore()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        checkDNS();
        QCOMPARE(log.lines(), (QStringList{kNothingPrinted, restoreLine(Restore::AtStart)}));
    }

    void backupsAreGoneAfterTheRestore()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "a.test\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void valuesMayStandOnLinesOfTheirOwn()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"),
                              "192.0.2.1\n192.0.2.2\n\n2001:db8::1");
        MacPlatform::updateDns();
        QCOMPARE(standins::networksetupCalls().last(),
                 QStringLiteral("-setdnsservers Wi-Fi 192.0.2.1 192.0.2.2 2001:db8::1 "));
    }

    void emptyRemovesTheServers()
    {
        standins::setDns(kWifi, {QStringLiteral("10.8.0.1")}, {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "Empty");
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList());
        QCOMPARE(standins::searchDomains(kWifi), QStringList{QStringLiteral("tunnel.test")});
        QCOMPARE(standins::networksetupCalls().last(),
                 QStringLiteral("-setdnsservers Wi-Fi Empty "));
    }

    void emptyRemovesTheSearchDomains()
    {
        standins::setDns(kWifi, {QStringLiteral("10.8.0.1")}, {QStringLiteral("tunnel.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "Empty\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("10.8.0.1")});
        QCOMPARE(standins::searchDomains(kWifi), QStringList());
        QCOMPARE(standins::networksetupCalls().last(),
                 QStringLiteral("-setsearchdomains Wi-Fi Empty "));
    }

    void serversAreRestoredBeforeDomainsServiceByService()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "a.test b.test\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_iPhone USB"), "c.test\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_iPhone USB"), "192.0.2.2\n");
        checkDNS();
        QCOMPARE(standins::networksetupCalls(),
                 (QStringList{kListCall, QStringLiteral("-setdnsservers Wi-Fi 192.0.2.1 "),
                              QStringLiteral("-setsearchdomains Wi-Fi a.test b.test "),
                              QStringLiteral("-setdnsservers iPhone\\ USB 192.0.2.2 "),
                              QStringLiteral("-setsearchdomains iPhone\\ USB c.test ")}));
    }

    void serviceWithBlanksInItsNameIsRestored()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_iPhone USB"), "192.0.2.1\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_iPhone USB"), "a.test\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kUsb), QStringList{QStringLiteral("192.0.2.1")});
        QCOMPARE(standins::searchDomains(kUsb), QStringList{QStringLiteral("a.test")});
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void serviceWithoutABackupIsLeftAlone()
    {
        standins::setDns(kUsb, {QStringLiteral("198.51.100.1")}, {QStringLiteral("b.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("192.0.2.1")});
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

    void failedRestoreRemovesTheBackupAndLogsWhatWasPrinted_data() { addBothRestores(); }

    void failedRestoreRemovesTheBackupAndLogsWhatWasPrinted()
    {
        QFETCH(Restore, way);
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "\n");
        const LogCapture log;
        run(way);
        QCOMPARE(
            log.lines(),
            (QStringList{QStringLiteral("\"Usage: networksetup -setdnsservers <networkservice> "
                                        "<dns1> [dns2] [...]\\n\""),
                         restoreLine(way)}));
        QCOMPARE(standins::backupFiles(), QStringList());
    }

    void standardErrorIsNotLogged_data() { addBothRestores(); }

    void standardErrorIsNotLogged()
    {
        QFETCH(Restore, way);
        QVERIFY(replaceNetworksetup("echo problem >&2\n"
                                    "[[ $1 == -list* ]] && echo Wi-Fi || echo printed\n"));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        run(way);
        QCOMPARE(log.lines(), (QStringList{QStringLiteral("\"printed\\n\""), restoreLine(way)}));
    }

    void printedTextIsUtf8()
    {
        QVERIFY(
            replaceNetworksetup("[[ $1 == -list* ]] && echo Wi-Fi || printf 'gr\\303\\274n'\n"));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        MacPlatform::updateDns();
        QCOMPARE(log.lines().value(0), QStringLiteral("\"gr\u00fcn\""));
    }

    void printedTextEndsAtAZeroByte()
    {
        QVERIFY(
            replaceNetworksetup("[[ $1 == -list* ]] && echo Wi-Fi || printf 'before\\0after'\n"));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        MacPlatform::updateDns();
        QCOMPARE(log.lines().value(0), QStringLiteral("\"before\""));
    }

    void withoutNetworksetupTheBackupStays()
    {
        QVERIFY(QFile::remove(kNetworksetup));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        checkDNS();
        QCOMPARE(log.lines(), (QStringList{kNothingPrinted, restoreLine(Restore::AtStart)}));
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    // --- Listing --------------------------------------------------------------------------------

    void listingAsksEachServiceOnce()
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
        QTest::addColumn<QString>("service");
        QTest::addColumn<QStringList>("servers");
        QTest::addColumn<bool>("empty");
        const QStringList one{QStringLiteral("192.0.2.1")};
        QTest::newRow("no server") << kWifi << QStringList{QStringLiteral("Empty")} << true;
        QTest::newRow("one IPv4 server") << kWifi << one << false;
        QTest::newRow("one IPv4 server, service with a blank") << kUsb << one << false;
        QTest::newRow("two IPv4 servers")
            << kWifi << QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}
            << true;
        QTest::newRow("one IPv6 server")
            << kWifi << QStringList{QStringLiteral("2001:db8::1")} << true;
        QTest::newRow("one IPv4 and one IPv6 server")
            << kWifi << QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("2001:db8::1")}
            << true;
        QTest::newRow("three numbers") << kWifi << QStringList{QStringLiteral("192.0.2")} << true;
        QTest::newRow("five numbers") << kWifi << QStringList{QStringLiteral("1.2.3.4.5")} << true;
        QTest::newRow("a name") << kWifi << QStringList{QStringLiteral("dns.test")} << true;
    }

    void oneIpv4ServerMeansNotEmpty()
    {
        QFETCH(QString, service);
        QFETCH(QStringList, servers);
        QFETCH(bool, empty);
        standins::setDns(service, servers, {QStringLiteral("Empty")});
        const LogCapture log;
        QCOMPARE(MacPlatform::isEmptyDns(), empty);
        QCOMPARE(log.lines(),
                 empty ? (QStringList{kNothingPrinted, kTrue})
                       : (QStringList{QStringLiteral("\"192.0.2.1\\n\""), kFalse}));
        QCOMPARE(log.lines(QtDebugMsg), log.lines());
    }

    void everyServiceWithOneServerIsListed()
    {
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("Empty")});
        standins::setDns(kUsb, {QStringLiteral("192.0.2.2")}, {QStringLiteral("Empty")});
        const LogCapture log;
        QVERIFY(!MacPlatform::isEmptyDns());
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("\"192.0.2.1\\n192.0.2.2\\n\""), kFalse}));
    }

    void searchDomainsDoNotCount()
    {
        standins::setDns(kWifi, {QStringLiteral("Empty")}, {QStringLiteral("192.0.2.1")});
        QVERIFY(MacPlatform::isEmptyDns());
    }

    void listingChangesNothing()
    {
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("a.test")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.9\n");
        MacPlatform::isEmptyDns();
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("192.0.2.1")});
        QCOMPARE(standins::searchDomains(kWifi), QStringList{QStringLiteral("a.test")});
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    void standardErrorDoesNotCountAsAServer()
    {
        QVERIFY(replaceNetworksetup("[[ $1 == -list* ]] && echo Wi-Fi\necho 192.0.2.1 >&2\n"));
        const LogCapture log;
        QVERIFY(MacPlatform::isEmptyDns());
        QCOMPARE(log.lines(), (QStringList{kNothingPrinted, kTrue}));
    }

    // --- Clearing -------------------------------------------------------------------------------

    void clearingSetsEveryServiceToEmpty()
    {
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("a.test")});
        standins::setDns(kUsb, {QStringLiteral("192.0.2.2")}, {QStringLiteral("b.test")});
        MacPlatform::cleanDns();
        QCOMPARE(standins::dnsServers(kWifi) + standins::searchDomains(kWifi), QStringList());
        QCOMPARE(standins::dnsServers(kUsb) + standins::searchDomains(kUsb), QStringList());
    }

    void clearingCallsServersBeforeDomainsServiceByService()
    {
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
    }

    void clearingLogsWhatWasPrintedAndTrue()
    {
        const LogCapture log;
        MacPlatform::cleanDns();
        // The disabled service is listed with its asterisk, which is not its name.
        const QString refusal = QStringLiteral("*Old Modem is not a recognized network service.\\n"
                                               "** Error: The parameters were not valid.\\n");
        const QStringList expected{QLatin1Char('"') + refusal + refusal + QLatin1Char('"'), kTrue};
        QCOMPARE(log.lines(), expected);
        QCOMPARE(log.lines(QtDebugMsg), expected);
    }

    void clearingLeavesTheBackups()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_domain_Wi-Fi"), "a.test\n");
        MacPlatform::cleanDns();
        QCOMPARE(standins::backupFiles(),
                 (QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"),
                              QStringLiteral("TalvexFreeVPN_domain_Wi-Fi")}));
        QCOMPARE(standins::dnsServers(kWifi), QStringList());
    }

    // --- When bash is missing or does not end
    // -----------------------------------------------------

    void withoutBashEverythingLooksFine()
    {
        standins::setDns(kWifi, {QStringLiteral("192.0.2.1")}, {QStringLiteral("Empty")});
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.9\n");
        // In a private root /bin is a link that may be taken away for a while.
        QVERIFY(QFile::rename(QStringLiteral("/bin"), QStringLiteral("/former-bin")));
        LogCapture log;
        checkDNS();
        const QStringList checked = log.lines();
        log.clear();
        MacPlatform::updateDns();
        const QStringList updated = log.lines();
        log.clear();
        const bool empty = MacPlatform::isEmptyDns();
        const QStringList listed = log.lines();
        log.clear();
        MacPlatform::cleanDns();
        const QStringList cleaned = log.lines();
        QVERIFY(QFile::rename(QStringLiteral("/former-bin"), QStringLiteral("/bin")));

        QCOMPARE(checked, (QStringList{kNothingPrinted, restoreLine(Restore::AtStart)}));
        QCOMPARE(updated, (QStringList{kNothingPrinted, kTrue}));
        QVERIFY(empty);
        QCOMPARE(listed, (QStringList{kNothingPrinted, kTrue}));
        QCOMPARE(cleaned, (QStringList{kNothingPrinted, kTrue}));
        QCOMPARE(standins::dnsServers(kWifi), QStringList{QStringLiteral("192.0.2.1")});
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    void hangingScriptIsEndedAfterTenSeconds_data()
    {
        QTest::addColumn<QString>("call");
        QTest::newRow("checkDNS") << QStringLiteral("checkDNS");
        QTest::newRow("cleanDns") << QStringLiteral("cleanDns");
    }

    void hangingScriptIsEndedAfterTenSeconds()
    {
        QFETCH(QString, call);
        const bool isCheck = call == QStringLiteral("checkDNS");
        QVERIFY(replaceNetworksetup("[[ $1 == -list* ]] && { echo Wi-Fi; exit; }\n"
                                    "echo begun\nexec sleep 30\n"));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        if (isCheck)
            checkDNS();
        else
            MacPlatform::cleanDns();
        const qint64 duration = timer.elapsed();
        QVERIFY2(duration >= 10'000 && duration < 11'000, qPrintable(QString::number(duration)));
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("\"begun\\n\""),
                              isCheck ? restoreLine(Restore::AtStart) : kTrue}));
        QCOMPARE(childProcesses(), QVector<qint64>());
    }

    void restoreThatHangsKeepsTheBackup()
    {
        QVERIFY(replaceNetworksetup("[[ $1 == -list* ]] && { echo Wi-Fi; exit; }\n"
                                    "exec sleep 30\n"));
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        MacPlatform::updateDns();
        QCOMPARE(standins::backupFiles(), QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    void listingThatHangsIsJudgedByWhatItHasPrinted()
    {
        QVERIFY(replaceNetworksetup("[[ $1 == -list* ]] && { printf '%s\\n' Wi-Fi Other; exit; }\n"
                                    "[[ $2 == Other ]] && exec sleep 30\n"
                                    "[[ $1 == -getdnsservers ]] && echo 192.0.2.1\n"));
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!MacPlatform::isEmptyDns());
        QVERIFY(timer.elapsed() >= 10'000 && timer.elapsed() < 11'000);
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{QStringLiteral("\"192.0.2.1\\n\""), kFalse}));
        QCOMPARE(childProcesses(), QVector<qint64>());
    }

    void hangingListOfServicesIsAnEmptyAnswer()
    {
        QVERIFY(replaceNetworksetup("exec sleep 30\n"));
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(MacPlatform::isEmptyDns());
        QVERIFY(timer.elapsed() >= 10'000 && timer.elapsed() < 11'000);
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{kNothingPrinted, kTrue}));
        QCOMPARE(childProcesses(), QVector<qint64>());
    }

    void scriptThatEndsJustInTimeCounts()
    {
        QVERIFY(replaceNetworksetup("[[ $1 == -list* ]] && { echo Wi-Fi; exit; }\n"
                                    "[[ $1 == -getdnsservers ]] && sleep 8 && echo 192.0.2.1\n"));
        QVERIFY(!MacPlatform::isEmptyDns());
    }

    void eventsWaitWhileAScriptRuns()
    {
        QVERIFY(replaceNetworksetup("sleep 0.3\n"));
        bool fired = false;
        QTimer::singleShot(0, this, [&fired] { fired = true; });
        QElapsedTimer timer;
        timer.start();
        MacPlatform::updateDns();
        QVERIFY(timer.elapsed() >= 300);
        QVERIFY(!fired);
        QTRY_VERIFY(fired);
    }
};

QTEST_GUILESS_MAIN(DnsScripts)
#include "tst_dnsscripts.moc"
