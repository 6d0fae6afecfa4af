#include "checkdns.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

/// What a start of the daemon says about DNS settings. The script itself is in tst_dnsscripts; that
/// it restores them before anybody may connect is shown with the shipped daemon.
class CheckDns : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void failureIsPrintedAndTheResultIsTrueAllTheSame()
    {
        lab::resetPrivateRoot();
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "\n");
        const LogCapture log;
        checkDNS();
        QCOMPARE(log.lines(),
                 (QStringList{"\"Usage: networksetup -setdnsservers <networkservice> <dns1> "
                              "[dns2] [...]\\n\"",
                              "check DNS result  true"}));
    }
};

QTEST_GUILESS_MAIN(CheckDns)
#include "tst_checkdns.moc"
