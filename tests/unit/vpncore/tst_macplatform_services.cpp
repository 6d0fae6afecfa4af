#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"
#include "translation.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;
using vpncore::MacPlatformLimits;
using namespace std::chrono_literals;

using Calls = QVector<QStringList>;

namespace {

const QString kStateFolder = "/var/root/stand-ins/";
const QString kServices = "networksetup/services";
const QString kDialState = "networksetup/pppoe_TalvexFreeVPNL2tp";
const QString kL2tpFailed = "warning.l2tp_connection_fail";

const QStringList kHangUpCall{"-disconnectpppoeservice", "TalvexFreeVPNL2tp"};
const QStringList kRemoveCall{"-removenetworkservice", "TalvexFreeVPNnL2tp"};
const QStringList kDialCall{"-connectpppoeservice", "TalvexFreeVPNL2tp"};

/// What the tool gets when no value breaks the command line.
QStringList createCall(const QString &password, const QString &sharedSecret)
{
    return QString("create|--l2tp|TalvexFreeVPNL2tp|--endpoint|vpn.example|--username|anna|"
                   "--password|%1|--shared-secret|%2|--force")
        .arg(password, sharedSecret)
        .split('|');
}

/// @param message what the client is told; nothing of a success.
void compareResult(const OperationResult &result, const QString &message = {})
{
    QCOMPARE(result.code, 1);
    QCOMPARE(result.success, message.isEmpty());
    QCOMPARE(result.message, message);
}

/// @return limits that let tools be, but do not pause for long.
MacPlatformLimits shortPauses()
{
    MacPlatformLimits limits;
    limits.servicePause = 10ms;
    return limits;
}

OperationResult connectL2tp(const MacPlatformLimits &limits = shortPauses(),
                            const QString &password = "secret")
{
    return MacPlatform(limits).connectL2tp("vpn.example", "anna", password, "shared");
}

} // namespace

/// The system's VPN services and the kill switch, with stand-ins for networksetup, ifconfig and
/// the macosvpn tool that act on files.
class MacPlatformServices : public QObject
{
    Q_OBJECT

private:
    const QByteArray m_searchPath = qgetenv("PATH");

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QVERIFY(QDir().mkpath("/tmp/work") && QDir::setCurrent("/tmp/work"));
        QVERIFY(QFile::link(TALVEX_MACOSVPN, "macosvpn"));
    }

    void cleanup() { qputenv("PATH", m_searchPath); }

    void someAnswersAreFixed()
    {
        MacPlatform platform;
        QVERIFY(!platform.pptpSupports());
        QVERIFY(!platform.isPptpAsync());
        QVERIFY(platform.l2tpSupports());
        QVERIFY(platform.isL2tpAsync());
        QVERIFY(!platform.haveDisabledNetDevicesByKillSwitch());
        QVERIFY(!platform.turnOnNetDevices());
        compareResult(platform.connectPptp("vpn.example", "anna", "secret"),
                      "Протокол PPTP не поддерживается.");
        compareResult(platform.connectIKEv2("vpn.example", "anna", "secret"));
        QVERIFY(!QFile::exists(kStateFolder)); // no tool has been called
    }

    void disconnectHangsUpOneServiceAndRemovesTheOther()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\nTalvexFreeVPNnL2tp\n");
        standins::setState(kDialState, "connected\n");
        compareResult(MacPlatform().disconnect());
        QCOMPARE(standins::calls("networksetup"), (Calls{kHangUpCall, kRemoveCall}));
        QCOMPARE(standins::stateLines(kServices), (QStringList{"Wi-Fi", "TalvexFreeVPNL2tp"}));
        QCOMPARE(standins::stateLines(kDialState), QStringList());
    }

    void killSwitchSwitchesOneInterface()
    {
        MacPlatform platform;
        compareResult(platform.turnOffInternet());
        QCOMPARE(standins::stateLines("ifconfig/en0"), QStringList("down"));
        bool done = false;
        compareResult(platform.turnOnInternet(done));
        QVERIFY(done);
        QCOMPARE(standins::stateLines("ifconfig/en0"), QStringList("up"));
        QCOMPARE(standins::calls("ifconfig"), (Calls{{"en0", "down"}, {"en0", "up"}}));
    }

    void nothingButL2tpFailsWithoutTools()
    {
        qputenv("PATH", "/tmp/work"); // where the tool for L2TP is not looked for
        QVERIFY(QDir().mkpath("/tmp/empty") && QDir::setCurrent("/tmp/empty"));
        bool done = false;
        compareResult(MacPlatform().disconnect());
        compareResult(MacPlatform().turnOffInternet());
        compareResult(MacPlatform().turnOnInternet(done));
        QVERIFY(done);
        compareResult(connectL2tp(), kL2tpFailed);
        const lab::Translation translation(kL2tpFailed, "L2TP ist gescheitert.");
        compareResult(connectL2tp(), "L2TP ist gescheitert.");
        QVERIFY(!QFile::exists(kStateFolder));
    }

    void l2tpHangsUpRemovesCreatesAndDialsInThisOrder()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\n"); // of the last time
        const LogCapture log;
        compareResult(connectL2tp());
        QCOMPARE(standins::stateLines("macosvpn/networksetup-before"),
                 (QStringList{kHangUpCall.join(' ') + ' ', kRemoveCall.join(' ') + ' '}));
        QCOMPARE(standins::calls("networksetup"), (Calls{kHangUpCall, kRemoveCall, kDialCall}));
        QCOMPARE(standins::calls("macosvpn"), Calls{createCall("secret", "shared")});
        QCOMPARE(standins::stateLines(kServices), (QStringList{"Wi-Fi", "TalvexFreeVPNL2tp"}));
        QCOMPARE(standins::stateLines(kDialState), QStringList("connected"));
        QCOMPARE(log.lines(), QStringList());
    }

    void l2tpPausesBeforeItDialsTheNewServiceAndAfterwards()
    {
        MacPlatformLimits limits;
        limits.servicePause = 175ms;
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(10);
        QElapsedTimer elapsed;
        elapsed.start();
        compareResult(connectL2tp(limits));
        // The event loop turns while the tools run, if they take that long, and not in the pauses.
        QVERIFY2(ticks * 10 <= elapsed.elapsed() - 300,
                 qPrintable(QString("%1 in %2 ms").arg(ticks).arg(elapsed.elapsed())));
        // A file's time is that of the kernel's last tick, up to 10 ms ago.
        const QFileInfo made(kStateFolder + kServices);
        const QFileInfo dialled(kStateFolder + "networksetup/journal");
        QVERIFY(made.lastModified().msecsTo(dialled.lastModified()) >= 165);
        QVERIFY(dialled.lastModified().msecsTo(QDateTime::currentDateTime()) >= 175);
    }

    void l2tpSucceedsWhenDiallingFails()
    {
        standins::setState(kServices, "Wi-Fi\n");
        QVERIFY(QFile::rename("/sbin/networksetup", "/sbin/away"));
        const OperationResult result = connectL2tp();
        QVERIFY(QFile::rename("/sbin/away", "/sbin/networksetup"));
        compareResult(result);
        QCOMPARE(standins::stateLines(kServices).last(), "TalvexFreeVPNL2tp");
    }

    void l2tpFailsWithoutTheSuccessTextAndDoesNotDial()
    {
        standins::setState("macosvpn/last-words", "finished without errors.\n");
        compareResult(connectL2tp(), kL2tpFailed);
        QCOMPARE(standins::calls("macosvpn").size(), 1);
        QCOMPARE(standins::calls("networksetup"), (Calls{kHangUpCall, kRemoveCall}));
    }

    void toolThatHangsIsGivenUp()
    {
        standins::setState("macosvpn/hangs", {});
        MacPlatformLimits limits;
        limits.tool = 0s; // so that one second has to go by
        QElapsedTimer timer;
        timer.start();
        compareResult(connectL2tp(limits), kL2tpFailed);
        QVERIFY2(timer.elapsed() >= 1'000 && timer.elapsed() < 10'000,
                 qPrintable(QString::number(timer.elapsed())));
        limits.tool = -1s; // so that there is no time at all
        standins::writeTool("/tmp/tools/networksetup", "exec sleep 120\n");
        qputenv("PATH", "/tmp/tools:" + m_searchPath);
        timer.start();
        compareResult(MacPlatform(limits).disconnect());
        QVERIFY2(timer.elapsed() < 10'000, qPrintable(QString::number(timer.elapsed())));
    }

    void passwordGoesIntoTheCommandLineAsItStands_data()
    {
        QTest::addColumn<QStringList>("call");
        QTest::newRow("two words") << createCall("two words", "shared");
        QTest::newRow("a%4b") << createCall("asharedb", "shared");
        // The lowest marker is filled, and it is in the password now.
        QTest::newRow("a%1b") << createCall("asharedb", "%4");
        // From the quote on, what was outside quotes is inside and the other way round.
        QTest::newRow("pa\"ss") << createCall({}, {}).mid(0, 8)
                + QStringList{"pass --shared-secret shared --force"};
    }

    void passwordGoesIntoTheCommandLineAsItStands()
    {
        QFETCH(QStringList, call);
        connectL2tp(shortPauses(), QTest::currentDataTag());
        QCOMPARE(standins::calls("macosvpn"), Calls{call});
    }
};

QTEST_GUILESS_MAIN(MacPlatformServices)
#include "tst_macplatform_services.moc"
