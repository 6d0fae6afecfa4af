#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <utility>

namespace {

const QString kNetworksetup = QStringLiteral("/sbin/networksetup");
const QString kWifi = QStringLiteral("Wi-Fi");
const QString kUsb = QStringLiteral("iPhone USB");
/// macOS itself gives services such names. In a file's name, the stand-in writes a colon.
const QString kLan = QStringLiteral("USB 10/100/1000 LAN");
const QString kLanFile = QStringLiteral("USB 10:100:1000 LAN");

const QStringList kTunnelsServer{QStringLiteral("10.8.0.1")};
const QStringList kPushedServer{QStringLiteral("dhcp-option DNS 10.8.0.1")};

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// All backups, "NAME=CONTENT", also those whose service has slashes in its name.
QStringList backups()
{
    const QString folder = standins::dataFolder() + QLatin1Char('/');
    QStringList texts;
    QDirIterator files(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        texts.append(path.mid(folder.size()) + QLatin1Char('=') + contentOf(path));
    }
    texts.sort();
    return texts;
}

/// What every enabled service has.
QVector<QStringList> settings()
{
    QVector<QStringList> values;
    for (const QString &service : {kWifi, QStringLiteral("Thunderbolt Bridge"), kUsb, kLanFile})
        values << standins::dnsServers(service) << standins::searchDomains(service);
    return values;
}

} // namespace

/// The scripts that openvpn runs when the tunnel comes up and goes down.
class UpdateConf : public QObject
{
    Q_OBJECT

private:
    /// Runs a script as openvpn does, and notes what it prints.
    /// @param pushed what the server pushed.
    /// @return its exit status.
    int run(const QString &script, const QStringList &pushed = {})
    {
        QProcessEnvironment environment;
        environment.insert(QStringLiteral("dev"), QStringLiteral("tun0"));
        for (int i = 0; i < pushed.size(); ++i)
            environment.insert(QStringLiteral("foreign_option_%1").arg(i + 1), pushed[i]);
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setProcessEnvironment(environment);
        process.start(
            QCoreApplication::applicationDirPath() + QStringLiteral("/../Resources/") + script,
            {QStringLiteral("tun0"), QStringLiteral("1500"), QStringLiteral("0"),
             QStringLiteral("10.8.0.2"), QStringLiteral("255.255.255.0"), QStringLiteral("init")});
        process.waitForFinished();
        m_output = QString::fromUtf8(process.readAll());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    int up(const QStringList &pushed) { return run(QStringLiteral("update_conf_up"), pushed); }
    int upWithAServer() { return up(kPushedServer); }
    int down() { return run(QStringLiteral("update_conf_down")); }

    void writeTool(const QString &path, const QByteArray &script)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/bash\n" + script);
        QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    }

    /// Puts a script in the place of networksetup; $standIn in it is the stand-in.
    void replaceNetworksetup(const QByteArray &script)
    {
        QVERIFY(QFile::remove(kNetworksetup));
        writeTool(kNetworksetup, "standIn='" + m_standIn.toUtf8() + "'\n" + script);
    }

    /// @return how often a script has called networksetup since the last time.
    int newCalls()
    {
        const int calls = standins::networksetupCalls().size();
        return calls - std::exchange(m_calls, calls);
    }

    const QString m_standIn = QFile::symLinkTarget(kNetworksetup);
    QString m_output;
    int m_calls = 0;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_calls = 0;
        standins::setDns(kWifi, {QStringLiteral("192.0.2.2"), QStringLiteral("192.0.2.1")},
                         {QStringLiteral("Empty")});
        standins::setDns(kUsb, {QStringLiteral("Empty")},
                         {QStringLiteral("a.test"), QStringLiteral("b.test")});
        standins::setState(QStringLiteral("networksetup/services"),
                           "Wi-Fi\nThunderbolt Bridge\niPhone USB\n*Old Modem\n"
                           "USB 10/100/1000 LAN\n");
        standins::setDns(kLan, {QStringLiteral("fd00::53")}, {QStringLiteral("Empty")});
    }

    void cleanup()
    {
        QFile::remove(kNetworksetup);
        QVERIFY(QFile::link(m_standIn, kNetworksetup));
        QFile::remove(QStringLiteral("/sbin/dscacheutil"));
    }

    void upSavesEveryEnabledServicesSettings()
    {
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(backups(),
                 (QStringList{QStringLiteral("TalvexFreeVPN_dns_Thunderbolt Bridge=Empty\n"),
                              QStringLiteral("TalvexFreeVPN_dns_USB 10/100/1000 LAN=fd00::53\n"),
                              QStringLiteral("TalvexFreeVPN_dns_Wi-Fi=192.0.2.2 192.0.2.1\n"),
                              QStringLiteral("TalvexFreeVPN_dns_iPhone USB=Empty\n"),
                              QStringLiteral("TalvexFreeVPN_domain_Thunderbolt Bridge=Empty\n"),
                              QStringLiteral("TalvexFreeVPN_domain_USB 10/100/1000 LAN=Empty\n"),
                              QStringLiteral("TalvexFreeVPN_domain_Wi-Fi=Empty\n"),
                              QStringLiteral("TalvexFreeVPN_domain_iPhone USB=a.test b.test\n")}));
        QCOMPARE(
            QFile::permissions(standins::dataFolder() + QStringLiteral("/TalvexFreeVPN_dns_Wi-Fi"))
                & (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther),
            QFile::Permissions());
        QVERIFY(standins::networksetupCalls().filter(QStringLiteral("Modem")).isEmpty());
    }

    void upSetsTheTunnelsServersAndDomains()
    {
        const QStringList servers{QStringLiteral("10.8.0.1"), QStringLiteral("fd00::1")};
        const QStringList domains{QStringLiteral("tunnel.test"), QStringLiteral("b.tunnel.test")};
        QCOMPARE(up({QStringLiteral("dhcp-option DNS 10.8.0.1"),
                     QStringLiteral("dhcp-option DOMAIN tunnel.test"),
                     QStringLiteral("route 10.0.0.0"), QStringLiteral("dhcp-option DNS6 fd00::1"),
                     QStringLiteral("dhcp-option DOMAIN-SEARCH b.tunnel.test")}),
                 0);
        QCOMPARE(settings(),
                 (QVector<QStringList>{servers, domains, servers, domains, servers, domains,
                                       servers, domains}));
        QCOMPARE(m_output, QString());
    }

    void upChangesNoServiceBeforeBothItsBackupsAreThere()
    {
        replaceNetworksetup("data='" + standins::dataFolder().toUtf8() + R"sh('
            if [[ $1 == -set* ]]; then
                [[ -s $data/TalvexFreeVPN_dns_$2 && -s $data/TalvexFreeVPN_domain_$2 ]]
                echo $? >>/tmp/changes
            fi
            exec "$standIn" "$@")sh");
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(contentOf(QStringLiteral("/tmp/changes")), QStringLiteral("0\n0\n0\n0\n"));
    }

    void secondUpIsUsedAndLeavesTheBackupsAlone()
    {
        QCOMPARE(up({QStringLiteral("dhcp-option DNS 10.9.0.1")}), 0);
        const QStringList saved = backups();
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(standins::dnsServers(kWifi), kTunnelsServer);
        QCOMPARE(backups(), saved);
    }

    void downRestoresEverythingAndRemovesTheBackups()
    {
        const QVector<QStringList> before = settings();
        QCOMPARE(up(kPushedServer + QStringList{QStringLiteral("dhcp-option DOMAIN tunnel.test")}),
                 0);
        QVERIFY(settings() != before);
        QCOMPARE(down(), 0);
        QCOMPARE(settings(), before);
        QCOMPARE(backups(), QStringList());
        QCOMPARE(m_output, QString());
    }

    void downRemovesABackupThatHoldsNothing()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "\n");
        const QVector<QStringList> before = settings();
        QCOMPARE(down(), 0);
        QCOMPARE(settings(), before);
        QCOMPARE(backups(), QStringList());
    }

    void downKeepsABackupThatIsRefused()
    {
        QCOMPARE(up(kPushedServer), 0);
        replaceNetworksetup("[[ $1$2 == -setdnsserversWi-Fi ]] && { echo no; exit 4; }\n"
                            "exec \"$standIn\" \"$@\"\n");
        QCOMPARE(down(), 0);
        QCOMPARE(
            m_output,
            QStringLiteral("no\nupdate_conf_down: Wi-Fi does not take its DNS settings back\n"));
        QCOMPARE(backups(),
                 QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi=192.0.2.2 192.0.2.1\n")});
    }

    void downRestoresAServiceThatWasSwitchedOffMeanwhile()
    {
        const QVector<QStringList> before = settings();
        QCOMPARE(up(kPushedServer), 0);
        standins::setState(QStringLiteral("networksetup/services"),
                           "*Wi-Fi\nThunderbolt Bridge\niPhone USB\n*USB 10/100/1000 LAN\n");
        QCOMPARE(down(), 0);
        QCOMPARE(settings(), before);
        QVERIFY(QDir(standins::dataFolder()).isEmpty());
    }

    void tenServicesTakeAsFewCallsAsCanBe()
    {
        // At 0.3 s a call, up has to end within 16 s, and down within 10 s.
        QByteArray services;
        for (int i = 0; i < 10; ++i)
            services += "Service " + QByteArray::number(i) + '\n';
        standins::setState(QStringLiteral("networksetup/services"), services);
        const QStringList domain{QStringLiteral("dhcp-option DOMAIN tunnel.test")};
        newCalls();
        QCOMPARE(up(kPushedServer + domain), 0);
        QCOMPARE(newCalls(), 1 + 10 * 4);
        QCOMPARE(up(kPushedServer + domain), 0);
        QCOMPARE(newCalls(), 1 + 10 * 2);
        QCOMPARE(down(), 0);
        QCOMPARE(newCalls(), 1 + 10 * 2);
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(newCalls(), 1 + 10 * 3);
    }

    void bothFlushTheCacheWhereItIs()
    {
        writeTool(QStringLiteral("/sbin/dscacheutil"), "echo \"$@\" >>/tmp/flushes\n");
        QVERIFY(
            QFile::copy(QStringLiteral("/usr/bin/sleep"), QStringLiteral("/tmp/mDNSResponder")));
        const auto flushes = [this](int (UpdateConf::*script)()) {
            QProcess resolver; // which ends at the signal that makes the real one forget
            resolver.start(QStringLiteral("/tmp/mDNSResponder"), {QStringLiteral("60")});
            const bool isStarted = resolver.waitForStarted();
            QFile::remove(QStringLiteral("/tmp/flushes"));
            const bool isDone = (this->*script)() == 0;
            const bool isFlushed =
                contentOf(QStringLiteral("/tmp/flushes")) == QLatin1String("-flushcache\n");
            const bool isSignalled = isFlushed && resolver.waitForFinished(2'000);
            resolver.kill();
            resolver.waitForFinished();
            return isStarted && isDone && isSignalled;
        };
        QVERIFY(flushes(&UpdateConf::upWithAServer));
        QVERIFY(flushes(&UpdateConf::down));
        QVERIFY(!flushes(&UpdateConf::down)); // which has nothing to restore
    }

    void upStopsAndTakesItsChangeBackWhenItsOpenvpnHasEnded_data()
    {
        QTest::addColumn<QByteArray>("call");
        QTest::addColumn<QStringList>("saved");
        QTest::newRow("before it saves") << QByteArray("-getsearchdomains") << QStringList();
        QTest::newRow("while it sets")
            << QByteArray("-setdnsservers")
            << QStringList{QStringLiteral("TalvexFreeVPN_dns_Wi-Fi=192.0.2.2 192.0.2.1\n"),
                           QStringLiteral("TalvexFreeVPN_domain_Wi-Fi=Empty\n")};
    }

    void upStopsAndTakesItsChangeBackWhenItsOpenvpnHasEnded()
    {
        QFETCH(QByteArray, call);
        QFETCH(QStringList, saved);
        const QVector<QStringList> before = settings();
        replaceNetworksetup("if [[ $1 == " + call + R"sh( && ! -e /tmp/script ]]; then
                kill -KILL "$(</tmp/openvpn)"
                while [[ -d /proc/$(</tmp/openvpn) ]]; do sleep 0.01; done
                echo "$PPID" >/tmp/script
            fi
            exec "$standIn" "$@")sh");
        QProcess openvpn;
        openvpn.start(QStringLiteral("/bin/bash"),
                      {QStringLiteral("-c"),
                       QStringLiteral("echo $$ >/tmp/openvpn\n"
                                      "foreign_option_1='dhcp-option DNS 10.8.0.1' \"$0\"\n:"),
                       QCoreApplication::applicationDirPath()
                           + QStringLiteral("/../Resources/update_conf_up")});
        QVERIFY(openvpn.waitForFinished());
        QTRY_VERIFY(!contentOf(QStringLiteral("/tmp/script")).isEmpty());
        const qint64 script = contentOf(QStringLiteral("/tmp/script")).trimmed().toLongLong();
        QTRY_VERIFY(!standins::isAlive(script));
        QCOMPARE(settings(), before);
        QCOMPARE(backups(), saved);
    }

    void withoutAnythingToDoNothingIsDone()
    {
        const QVector<QStringList> before = settings();
        QCOMPARE(down(), 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(up({QStringLiteral("dhcp-option DOMAIN tunnel.test"),
                     QStringLiteral("route 10.0.0.0")}),
                 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(settings(), before);
        QCOMPARE(backups(), QStringList());
    }

    void pushedTextIsUsedOnlyWhereItIsAnAddressOrADomain()
    {
        QStringList pushed;
        for (const char *option : {"DNS -setdnsservers", "DNS Empty", "DNS *", "DNS 1.1.1.1;x",
                                   "DNS 1.1.1.1 ", "DNS a.test", "DNS", "DOMAIN Empty", "DOMAIN -x",
                                   "DOMAIN *", "DOMAIN a b", "WINS 1.1.1.1"})
            pushed.append(QStringLiteral("dhcp-option ") + QString::fromLatin1(option));
        QCOMPARE(up(pushed + kPushedServer), 0);
        QCOMPARE(standins::dnsServers(kWifi), kTunnelsServer);
        QCOMPARE(standins::searchDomains(kUsb),
                 (QStringList{QStringLiteral("a.test"), QStringLiteral("b.test")}));
        // The daemon searches what openvpn prints, and this is part of it.
        QCOMPARE(m_output, QString());
    }

    void onlyAddressesAreTaken()
    {
        const QStringList good{QStringLiteral("192.0.2.255"),
                               QStringLiteral("::1"),
                               QStringLiteral("fd00::"),
                               QStringLiteral("1:2:3:4:5:6:7:8"),
                               QStringLiteral("1::3:4:5:6:7:abCD"),
                               QStringLiteral("::ffff:192.0.2.1"),
                               QStringLiteral("64:ff9b::192.0.2.33")};
        QStringList pushed;
        for (const QString &address : good)
            pushed.append(QStringLiteral("dhcp-option DNS ") + address);
        for (const char *bad :
             {"192.0.2.256", "192.0.2", "192.0.2.1.1", "192.0.02.1", ".192.0.2.1", "1:2:3:4:5:6:7",
              "1:2:3:4:5:6:7:8:9", "1::2::3", ":::", ":1::2", "1::2:", "12345::", "fg::", "1:2",
              "::192.0.2.256", "::192.0.2", "1:2:3:4:5:6:7:192.0.2.1", "1::2:3:4:5:6:7:8", ":"})
            pushed.append(QStringLiteral("dhcp-option DNS6 ") + QString::fromLatin1(bad));
        QCOMPARE(up(pushed), 0);
        QCOMPARE(standins::dnsServers(kWifi), good);
    }

    void serversThatAreRefusedAreNoticed()
    {
        replaceNetworksetup("[[ $1$2 == -setdnsservers$(cat /tmp/refuses) ]] && exit 4\n"
                            "exec \"$standIn\" \"$@\"\n");
        QProcess::execute(QStringLiteral("/bin/bash"),
                          {QStringLiteral("-c"), QStringLiteral("echo Wi-Fi >/tmp/refuses")});
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(m_output,
                 QStringLiteral("update_conf_up: Wi-Fi does not take the tunnel's DNS servers\n"));
        QCOMPARE(standins::dnsServers(kUsb), kTunnelsServer);

        standins::setState(QStringLiteral("networksetup/services"), "Wi-Fi\n*iPhone USB\n");
        QCOMPARE(up(kPushedServer), 1);
        QVERIFY(m_output.endsWith(
            QLatin1String("\nupdate_conf_up: no service takes the tunnel's DNS servers\n")));
    }

    void upFailsAndChangesNothingWhenSettingsCannotBeSaved_data()
    {
        QTest::addColumn<QString>("obstacle");
        QTest::newRow("no folder") << QStringLiteral("rmdir \"$0\"; : >\"$0\"");
        QTest::newRow("a link") << QStringLiteral(
            ": >/var/root/elsewhere; ln -s /var/root/elsewhere \"$0/TalvexFreeVPN_dns_Wi-Fi\"");
        QTest::newRow("a folder") << QStringLiteral("mkdir \"$0/TalvexFreeVPN_dns_Wi-Fi\"");
    }

    void upFailsAndChangesNothingWhenSettingsCannotBeSaved()
    {
        QFETCH(QString, obstacle);
        QVERIFY(QDir().mkpath(standins::dataFolder()));
        QCOMPARE(QProcess::execute(QStringLiteral("/bin/bash"),
                                   {QStringLiteral("-c"), obstacle, standins::dataFolder()}),
                 0);
        const QVector<QStringList> before = settings();
        QCOMPARE(up(kPushedServer), 1);
        QVERIFY2(m_output.endsWith(
                     QLatin1String("update_conf_up: cannot save the DNS settings of Wi-Fi\n")),
                 qPrintable(m_output));
        QCOMPARE(settings(), before);
    }

    void bothFailWhenServicesCannotBeListed()
    {
        replaceNetworksetup("exit 1\n");
        QCOMPARE(up(kPushedServer), 1);
        QCOMPARE(m_output, QStringLiteral("update_conf_up: cannot list the network services\n"));
        QCOMPARE(down(), 1);
        QCOMPARE(m_output, QStringLiteral("update_conf_down: cannot list the network services\n"));
    }

    void serviceThatIsGoneSinceItWasListedIsPassedOver()
    {
        replaceNetworksetup("[[ $1 == -list* ]] && { printf '%s\\n' Gone Wi-Fi; exit; }\n"
                            "exec \"$standIn\" \"$@\"\n");
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(standins::dnsServers(kWifi), kTunnelsServer);
        QVERIFY(backups().filter(QStringLiteral("Gone")).isEmpty());
    }

    void halfWrittenBackupsOfScriptsThatWereKilledAreRemoved()
    {
        const QString ofALivingOne =
            QStringLiteral(".saving_%1").arg(QCoreApplication::applicationPid());
        standins::writeBackup(QStringLiteral(".saving_999999"), "192.0.2.1\n");
        standins::writeBackup(ofALivingOne, "192.0.2.1\n");
        QCOMPARE(up(kPushedServer), 0);
        QCOMPARE(standins::backupFiles().filter(QStringLiteral(".saving_")),
                 QStringList{ofALivingOne});
    }
};

QTEST_GUILESS_MAIN(UpdateConf)
#include "tst_update_conf.moc"
