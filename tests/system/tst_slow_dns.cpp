#include "client.h"
#include "daemonprocess.h"
#include "files.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

namespace {

constexpr int kServices = 10;

QString service(int number)
{
    return QString("Service %1").arg(number);
}

QString serverOf(int number)
{
    return QString("192.0.2.%1").arg(number + 1);
}

bool isAsBefore()
{
    for (int i = 0; i < kServices; ++i) {
        if (standins::dnsServers(service(i)) != QStringList{serverOf(i)}
            || standins::searchDomains(service(i)) != QStringList{"home.test"})
            return false;
    }
    return standins::backupFiles().isEmpty();
}

} // namespace

/// A Mac whose networksetup takes a second for each call, so that a restore is cut off at its
/// limit.
class TestSlowDns : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void settingsComeBackThoughOpenvpnIsKilledAmongThem()
    {
        lab::resetPrivateRoot();
        QByteArray services;
        for (int i = 0; i < kServices; ++i)
            services += service(i).toUtf8() + '\n';
        standins::setState("networksetup/services", services);
        for (int i = 0; i < kServices; ++i)
            standins::setDns(service(i), {serverOf(i)}, {"home.test"});
        standins::wrapNetworksetup("sleep $(cat /tmp/seconds)\nexec $0.kept \"$@\"\n");
        lab::writeFile("/tmp/seconds", "0.1");

        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(standins::serverFor("connects"));
        // In the middle of its up script, with more backups than a restore gets done.
        QTRY_COMPARE_WITH_TIMEOUT(standins::dnsServers(service(6)), QStringList{"10.8.0.1"},
                                  30'000);
        lab::writeFile("/tmp/seconds", "1.0");
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);
        client.disconnectTunnel(); // so that there is no further attempt

        QElapsedTimer timer;
        timer.start();
        QTRY_VERIFY_WITH_TIMEOUT(client.answers().size() == 2 && isAsBefore(), 120'000);
        qInfo("everything was as before after %lld s", timer.elapsed() / 1'000);
        QVERIFY(client.outcome() != "success");
        QVERIFY(timer.elapsed() > 10'000); // so one restore at least was cut off
        // No script is left that would change something.
        QTRY_VERIFY_WITH_TIMEOUT(QProcess::execute("pgrep", {"networksetup|update_conf"}) == 1,
                                 10'000);
        QVERIFY(isAsBefore());
    }
};

QTEST_GUILESS_MAIN(TestSlowDns)
#include "tst_slow_dns.moc"
