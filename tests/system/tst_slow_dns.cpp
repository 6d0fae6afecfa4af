#include "client.h"
#include "daemonprocess.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

namespace {

constexpr int kServices = 10;

QString service(int number)
{
    return QStringLiteral("Service %1").arg(number);
}

QString serverOf(int number)
{
    return QStringLiteral("192.0.2.%1").arg(number + 1);
}

bool isAsBefore()
{
    for (int i = 0; i < kServices; ++i) {
        if (standins::dnsServers(service(i)) != QStringList{serverOf(i)}
            || standins::searchDomains(service(i)) != QStringList{QStringLiteral("home.test")})
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
        standins::setState(QStringLiteral("networksetup/services"), services);
        for (int i = 0; i < kServices; ++i)
            standins::setDns(service(i), {serverOf(i)}, {QStringLiteral("home.test")});
        const QString tool = QStringLiteral("/sbin/networksetup");
        QVERIFY(QFile::rename(tool, tool + QStringLiteral(".fast")));
        QFile slow(tool);
        QVERIFY(slow.open(QIODevice::WriteOnly));
        slow.write("#!/bin/bash\nsleep $(cat /tmp/seconds)\n"
                   "exec /sbin/networksetup.fast \"$@\"\n");
        QVERIFY(slow.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        slow.close();
        QFile seconds(QStringLiteral("/tmp/seconds"));
        QVERIFY(seconds.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        seconds.write("0.1");

        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(standins::serverFor(QStringLiteral("connects")));
        // In the middle of its up script, with more backups than a restore gets done.
        QTRY_COMPARE_WITH_TIMEOUT(standins::dnsServers(service(6)),
                                  QStringList{QStringLiteral("10.8.0.1")}, 30'000);
        seconds.seek(0);
        seconds.write("1.0");
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);
        client.disconnectTunnel(); // so that there is no further attempt

        QElapsedTimer timer;
        timer.start();
        QTRY_VERIFY_WITH_TIMEOUT(client.answers().size() == 2 && isAsBefore(), 120'000);
        qInfo("everything was as before after %lld s", timer.elapsed() / 1'000);
        QVERIFY(client.outcome() != QLatin1String("success"));
        QVERIFY(timer.elapsed() > 10'000); // so one restore at least was cut off
        // No script is left that would change something.
        QTRY_VERIFY_WITH_TIMEOUT(
            QProcess::execute(QStringLiteral("pgrep"), {QStringLiteral("networksetup|update_conf")})
                == 1,
            10'000);
        QVERIFY(isAsBefore());
    }
};

QTEST_GUILESS_MAIN(TestSlowDns)
#include "tst_slow_dns.moc"
