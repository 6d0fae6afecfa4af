#include "files.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

namespace {

const QString kServices = "networksetup/services";

const QStringList kPushed{"dhcp-option DNS 10.8.0.1"};
const QStringList kDomain{"dhcp-option DOMAIN tunnel.test"};
const QStringList kTunnelsServer{"10.8.0.1"};

QString scriptPath(const QString &name)
{
    return QCoreApplication::applicationDirPath() + "/../Resources/" + name;
}

/// All backups, "NAME=CONTENT", also those whose service has slashes in its name.
QStringList backups()
{
    const QString folder = standins::dataFolder() + '/';
    QStringList texts;
    QDirIterator files(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        texts.append(path.mid(folder.size()) + '=' + lab::contentOf(path));
    }
    texts.sort();
    return texts;
}

/// What every enabled service has. In a file's name, the stand-in writes a colon for a slash.
QVector<QStringList> settings()
{
    QVector<QStringList> values;
    for (const char *service : {"Wi-Fi", "iPhone USB", "USB 10:100:1000 LAN"})
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
    /// @return its exit status.
    int run(const QString &script, const QStringList &pushed)
    {
        QProcessEnvironment environment;
        for (int i = 0; i < pushed.size(); ++i)
            environment.insert(QString("foreign_option_%1").arg(i + 1), pushed[i]);
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setProcessEnvironment(environment);
        process.start(scriptPath(script),
                      {"tun0", "1500", "0", "10.8.0.2", "255.255.255.0", "init"});
        process.waitForFinished();
        m_output = process.readAll();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    int up(const QStringList &pushed = kPushed) { return run("update_conf_up", pushed); }
    int down() { return run("update_conf_down", {}); }

    /// Has a script decide before networksetup does its work.
    static void precedeNetworksetup(const QByteArray &script)
    {
        standins::wrapNetworksetup(script + "\nexec $0.kept \"$@\"\n");
    }

    QString m_output;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        precedeNetworksetup({});
        // macOS itself gives services such names as the last one.
        standins::setState(kServices, "Wi-Fi\niPhone USB\n*Old Modem\nUSB 10/100/1000 LAN\n");
        standins::setState("networksetup/dns_Wi-Fi", "192.0.2.2\n192.0.2.1\n");
        standins::setState("networksetup/search_iPhone USB", "a.test\nb.test\n");
        standins::setState("networksetup/dns_USB 10:100:1000 LAN", "fd00::53\n");
    }

    void upSavesWhatEveryEnabledServiceHasAndSetsTheTunnels()
    {
        const QStringList servers{"10.8.0.1", "fd00::1"};
        const QStringList domains{"tunnel.test", "b.tunnel.test"};
        // Both backups of a service are there before it is changed.
        precedeNetworksetup("data='" + standins::dataFolder().toUtf8()
                            + "'\n[[ $1 != -set* || -s $data/TalvexFreeVPN_dns_$2 && "
                              "-s $data/TalvexFreeVPN_domain_$2 ]] || exit 9");
        QCOMPARE(up({"dhcp-option DNS 10.8.0.1", "dhcp-option DOMAIN tunnel.test", "route 10.0.0.0",
                     "dhcp-option DNS6 fd00::1", "dhcp-option DOMAIN-SEARCH b.tunnel.test"}),
                 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(settings(),
                 QVector<QStringList>({servers, domains, servers, domains, servers, domains}));
        QCOMPARE(backups().join(""),
                 "TalvexFreeVPN_dns_USB 10/100/1000 LAN=fd00::53\n"
                 "TalvexFreeVPN_dns_Wi-Fi=192.0.2.2 192.0.2.1\n"
                 "TalvexFreeVPN_dns_iPhone USB=Empty\n"
                 "TalvexFreeVPN_domain_USB 10/100/1000 LAN=Empty\n"
                 "TalvexFreeVPN_domain_Wi-Fi=Empty\n"
                 "TalvexFreeVPN_domain_iPhone USB=a.test b.test\n");
        QCOMPARE(QFile::permissions(standins::dataFolder() + "/TalvexFreeVPN_dns_Wi-Fi") & 0x77,
                 QFile::Permissions());
        QVERIFY(standins::networksetupCalls().filter("Modem").isEmpty());
    }

    void downRestoresWhatWasThereBeforeTheFirstOfTwoTunnels()
    {
        const QVector<QStringList> before = settings();
        QCOMPARE(up({"dhcp-option DNS 10.9.0.1"}), 0);
        const QStringList saved = backups();
        QCOMPARE(up(kPushed + kDomain), 0);
        QCOMPARE(standins::dnsServers("Wi-Fi"), kTunnelsServer);
        QCOMPARE(backups(), saved);
        // Two services have been switched off meanwhile.
        standins::setState(kServices, "*Wi-Fi\niPhone USB\n*USB 10/100/1000 LAN\n");
        QCOMPARE(down(), 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(settings(), before);
        QVERIFY(QDir(standins::dataFolder()).isEmpty());
    }

    void downKeepsABackupThatIsRefusedAndNoneThatHoldsNothing()
    {
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.9\n");
        standins::writeBackup("TalvexFreeVPN_dns_iPhone USB", "\n");
        precedeNetworksetup("[[ $1$2 == -setdnsserversWi-Fi ]] && { echo no; exit 4; }");
        QCOMPARE(down(), 0);
        QCOMPARE(m_output, "no\nupdate_conf_down: Wi-Fi does not take its DNS settings back\n");
        QCOMPARE(backups(), QStringList("TalvexFreeVPN_dns_Wi-Fi=192.0.2.9\n"));
    }

    /// At 0.3 s a call, up has to end within 16 s with ten services, and down within 10 s.
    void serviceTakesAsFewCallsAsCanBe()
    {
        standins::setState(kServices, "Wi-Fi\n");
        QCOMPARE(up(kPushed + kDomain), 0);
        QCOMPARE(standins::networksetupCalls().size(), 1 + 4);
        QCOMPARE(up(kPushed + kDomain), 0);
        QCOMPARE(standins::networksetupCalls().size(), 5 + 1 + 2);
        QCOMPARE(down(), 0);
        QCOMPARE(standins::networksetupCalls().size(), 8 + 1 + 2);
    }

    void bothFlushTheCacheWhereItIs()
    {
        standins::writeTool("/sbin/dscacheutil", "echo \"$@\" >>/tmp/flushes\n");
        QVERIFY(QFile::copy("/usr/bin/sleep", "/tmp/mDNSResponder"));
        for (const char *script : {"update_conf_up", "update_conf_down"}) {
            QProcess resolver; // which ends at the signal that makes the real one forget
            resolver.start("/tmp/mDNSResponder", {"60"});
            QVERIFY(resolver.waitForStarted());
            QCOMPARE(run(script, kPushed), 0);
            QVERIFY(resolver.waitForFinished(2'000));
        }
        QCOMPARE(down(), 0); // which has nothing to restore
        QVERIFY(QFile::remove("/sbin/dscacheutil"));
        QCOMPARE(lab::contentOf("/tmp/flushes"), QByteArray("-flushcache\n-flushcache\n"));
    }

    void upStopsAndTakesItsChangeBackWhenItsOpenvpnHasEnded_data()
    {
        QTest::addColumn<QByteArray>("call");
        QTest::addColumn<int>("backups");
        QTest::newRow("before it saves") << QByteArray("-getsearchdomains") << 0;
        QTest::newRow("while it sets") << QByteArray("-setdnsservers") << 2;
    }

    void upStopsAndTakesItsChangeBackWhenItsOpenvpnHasEnded()
    {
        QFETCH(QByteArray, call);
        QFETCH(int, backups);
        const QVector<QStringList> before = settings();
        precedeNetworksetup("call=" + call + R"sh(
            if [[ $1 == "$call" && ! -e /tmp/script ]]; then
                kill -KILL "$(</tmp/openvpn)"
                while [[ -d /proc/$(</tmp/openvpn) ]]; do sleep 0.01; done
                echo "$PPID" >/tmp/script
            fi)sh");
        const QString runsUp = R"sh(
            echo $$ >/tmp/openvpn
            foreign_option_1='dhcp-option DNS 10.8.0.1' "$0"
            :)sh";
        QProcess openvpn;
        openvpn.start("/bin/bash", {"-c", runsUp, scriptPath("update_conf_up")});
        QVERIFY(openvpn.waitForFinished());
        QTRY_VERIFY(!lab::contentOf("/tmp/script").isEmpty());
        QTRY_VERIFY(!standins::isAlive(lab::contentOf("/tmp/script").trimmed().toLongLong()));
        QCOMPARE(settings(), before);
        QCOMPARE(standins::backupFiles().size(), backups);
    }

    void withoutAnythingToDoNothingIsDone()
    {
        const QVector<QStringList> before = settings();
        QCOMPARE(down(), 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(up({"dhcp-option DOMAIN tunnel.test", "route 10.0.0.0"}), 0);
        QCOMPARE(m_output, QString());
        QCOMPARE(settings(), before);
        QCOMPARE(backups(), QStringList());
    }

    void pushedTextIsUsedOnlyWhereItIsAnAddressOrADomain()
    {
        const QStringList good =
            QString("192.0.2.255|::1|fd00::|1:2:3:4:5:6:7:8|1::3:4:5:6:7:abCD|::ffff:192.0.2.1|"
                    "64:ff9b::192.0.2.33")
                .split('|');
        QStringList options =
            QString("DNS -setdnsservers|DNS Empty|DNS *|DNS 1.1.1.1;x|DNS 1.1.1.1 |DNS a.test|DNS|"
                    "DNS 192.0.2.256|DNS 192.0.2|DNS 192.0.2.1.1|DNS 192.0.02.1|DNS .192.0.2.1|"
                    "DNS6 1:2:3:4:5:6:7|DNS6 1:2:3:4:5:6:7:8:9|DNS6 1::2::3|DNS6 :::|DNS6 :1::2|"
                    "DNS6 1::2:|DNS6 12345::|DNS6 fg::|DNS6 1:2|DNS6 ::192.0.2.256|DNS6 ::192.0.2|"
                    "DNS6 1:2:3:4:5:6:7:192.0.2.1|DNS6 1::2:3:4:5:6:7:8|DNS6 :|"
                    "DOMAIN -x|DOMAIN Empty|DOMAIN *|DOMAIN a b|WINS 1.1.1.1")
                .split('|');
        for (const QString &address : good)
            options.append("DNS " + address);
        QCOMPARE(up(options.replaceInStrings(QRegularExpression("^"), "dhcp-option ")), 0);
        QCOMPARE(standins::dnsServers("Wi-Fi"), good);
        QCOMPARE(standins::searchDomains("iPhone USB"), (QStringList{"a.test", "b.test"}));
        // The daemon searches what openvpn prints, and this is part of it.
        QCOMPARE(m_output, QString());
    }

    void serversThatAreRefusedAreNoticed()
    {
        precedeNetworksetup("[[ $1$2 == -setdnsserversWi-Fi ]] && exit 4");
        QCOMPARE(up(), 0);
        const QString refused = "update_conf_up: Wi-Fi does not take the tunnel's DNS servers\n";
        QCOMPARE(m_output, refused);
        QCOMPARE(standins::dnsServers("iPhone USB"), kTunnelsServer);
        standins::setState(kServices, "Wi-Fi\n*iPhone USB\n");
        QCOMPARE(up(), 1);
        QCOMPARE(m_output, refused + "update_conf_up: no service takes the tunnel's DNS servers\n");
    }

    void upFailsAndChangesNothingWhenSettingsCannotBeSaved_data()
    {
        QTest::addColumn<QString>("obstacle");
        QTest::newRow("no folder") << "rmdir \"$0\"; : >\"$0\"";
        QTest::newRow("a link") << "touch /var/root/elsewhere; ln -s /var/root/elsewhere "
                                   "\"$0/TalvexFreeVPN_dns_Wi-Fi\"";
        QTest::newRow("a folder") << "mkdir \"$0/TalvexFreeVPN_dns_Wi-Fi\"";
    }

    void upFailsAndChangesNothingWhenSettingsCannotBeSaved()
    {
        QFETCH(QString, obstacle);
        QVERIFY(QDir().mkpath(standins::dataFolder()));
        QCOMPARE(QProcess::execute("/bin/bash", {"-c", obstacle, standins::dataFolder()}), 0);
        const QVector<QStringList> before = settings();
        QCOMPARE(up(), 1);
        QVERIFY(m_output.endsWith("update_conf_up: cannot save the DNS settings of Wi-Fi\n"));
        QCOMPARE(settings(), before);
    }

    void bothFailWhenServicesCannotBeListed()
    {
        precedeNetworksetup("exit 1");
        QCOMPARE(up(), 1);
        QCOMPARE(m_output, "update_conf_up: cannot list the network services\n");
        QCOMPARE(down(), 1);
        QCOMPARE(m_output, "update_conf_down: cannot list the network services\n");
    }

    void serviceThatIsGoneSinceItWasListedIsPassedOver()
    {
        precedeNetworksetup("[[ $1 == -list* ]] && { printf '%s\\n' Gone Wi-Fi; exit; }");
        QCOMPARE(up(), 0);
        QCOMPARE(standins::dnsServers("Wi-Fi"), kTunnelsServer);
        QVERIFY(backups().filter("Gone").isEmpty());
    }

    void halfWrittenBackupsOfScriptsThatWereKilledAreRemoved()
    {
        const QString ofALivingOne = QString(".saving_%1").arg(QCoreApplication::applicationPid());
        standins::writeBackup(".saving_999999", "192.0.2.1\n");
        standins::writeBackup(ofALivingOne, "192.0.2.1\n");
        QCOMPARE(up(), 0);
        QCOMPARE(standins::backupFiles().filter(".saving_"), QStringList(ofALivingOne));
    }
};

QTEST_GUILESS_MAIN(UpdateConf)
#include "tst_update_conf.moc"
