#include "checkdns.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

/// What a start of the daemon does about DNS settings. The script itself is in tst_dnsscripts.
class CheckDns : public QObject
{
    Q_OBJECT

private:
    const QString m_wifi = QStringLiteral("Wi-Fi");

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void settingsThatWereLeftChangedAreRestored()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");
        const LogCapture log;
        checkDNS();
        QCOMPARE(standins::dnsServers(m_wifi),
                 (QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}));
        QCOMPARE(standins::backupFiles(), QStringList());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("\"\""), QStringLiteral("check DNS result  true")}));
        QCOMPARE(log.lines().size(), 2);
    }

    void failureIsPrintedAndTheResultIsTrueAllTheSame()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "\n");
        const LogCapture log;
        checkDNS();
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("\"Usage: networksetup -setdnsservers "
                                             "<networkservice> <dns1> [dns2] [...]\\n\""),
                              QStringLiteral("check DNS result  true")}));
    }
};

QTEST_GUILESS_MAIN(CheckDns)
#include "tst_checkdns.moc"
