#include "client.h"
#include "daemonprocess.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <csignal>

using standins::serverFor;

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
        slow.write("#!/bin/bash\nsleep 1\nexec /sbin/networksetup.fast \"$@\"\n");
        QVERIFY(slow.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        slow.close();

        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(serverFor(QStringLiteral("connects")));
        // In the middle of its up script, which takes four seconds for a service.
        QTRY_COMPARE_WITH_TIMEOUT(standins::dnsServers(service(1)),
                                  QStringList{QStringLiteral("10.8.0.1")}, 30'000);
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().first().pid), SIGKILL), 0);

        const auto isAsBefore = [] {
            for (int i = 0; i < kServices; ++i) {
                if (standins::dnsServers(service(i)) != QStringList{serverOf(i)}
                    || standins::searchDomains(service(i))
                        != QStringList{QStringLiteral("home.test")})
                    return false;
            }
            return standins::backupFiles().isEmpty();
        };
        QElapsedTimer timer;
        timer.start();
        QTRY_VERIFY_WITH_TIMEOUT(client.answers().size() == 1 && isAsBefore(), 120'000);
        qInfo("everything was as before after %lld s", timer.elapsed() / 1'000);
        QVERIFY(client.outcome() != QLatin1String("success"));
        QTest::qWait(5'000); // in which a script that still runs would change something
        QVERIFY(isAsBefore());
    }
};

QTEST_GUILESS_MAIN(TestSlowDns)
#include "tst_slow_dns.moc"
