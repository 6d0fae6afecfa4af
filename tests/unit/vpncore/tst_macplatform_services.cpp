#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QTranslator>
#include <QtTest/QtTest>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

const QString kNetworksetup = QStringLiteral("networksetup");
const QString kMacosvpn = QStringLiteral("macosvpn");
const QString kIfconfig = QStringLiteral("ifconfig");
const QString kServices = QStringLiteral("networksetup/services");
const QString kDialState = QStringLiteral("networksetup/pppoe_TalvexFreeVPNL2tp");
const QString kEn0 = QStringLiteral("ifconfig/en0");
const QString kLastWords = QStringLiteral("macosvpn/last-words");
const QString kDialled = QStringLiteral("TalvexFreeVPNL2tp");
const QString kRemoved = QStringLiteral("TalvexFreeVPNnL2tp");
const QString kL2tpFailed = QStringLiteral("warning.l2tp_connection_fail");

const QStringList kHangUpCall{QStringLiteral("-disconnectpppoeservice"), kDialled};
const QStringList kRemoveCall{QStringLiteral("-removenetworkservice"), kRemoved};
const QStringList kDialCall{QStringLiteral("-connectpppoeservice"), kDialled};

/// What the tool gets when no value breaks the command line.
QStringList createCall(const QString &password, const QString &sharedSecret)
{
    return QStringLiteral("create|--l2tp|TalvexFreeVPNL2tp|--endpoint|vpn.example|--username|anna|"
                          "--password|%1|--shared-secret|%2|--force")
        .arg(password, sharedSecret)
        .split(QLatin1Char('|'));
}

/// The moment when a file of the stand-ins' state was written for the last time.
QDateTime timeOf(const QString &name)
{
    const QFileInfo file(QStringLiteral("/var/root/stand-ins/") + name);
    return file.exists() ? file.lastModified() : QDateTime();
}

/// A translation of the one key that these operations send to the client.
class Translation : public QTranslator
{
public:
    bool isEmpty() const override { return false; }

    QString translate(const char *, const char *key, const char *, int) const override
    {
        return kL2tpFailed == QLatin1String(key) ? QStringLiteral("L2TP ist gescheitert.")
                                                 : QString();
    }
};

void compareSuccess(const OperationResult &result)
{
    QCOMPARE(result.code, 1);
    QVERIFY(result.success);
    QCOMPARE(result.message, QString());
}

void compareFailure(const OperationResult &result, const QString &message)
{
    QCOMPARE(result.code, 1);
    QVERIFY(!result.success);
    QCOMPARE(result.message, message);
}

} // namespace

/// The system's VPN services and the kill switch, with stand-ins for networksetup, ifconfig and
/// the macosvpn tool that act on files.
class MacPlatformServices : public QObject
{
    Q_OBJECT

private:
    /// @return limits that let tools be, but do not pause for long.
    static vpncore::MacPlatformLimits shortPauses()
    {
        vpncore::MacPlatformLimits limits;
        limits.servicePause = 10ms;
        return limits;
    }

    static OperationResult connectL2tp(const vpncore::MacPlatformLimits &limits = shortPauses(),
                                       const QString &password = QStringLiteral("secret"))
    {
        return MacPlatform(limits).connectL2tp(QStringLiteral("vpn.example"),
                                               QStringLiteral("anna"), password,
                                               QStringLiteral("shared"));
    }

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/work")));
        QVERIFY(QDir::setCurrent(QStringLiteral("/tmp/work")));
        QVERIFY(QFile::link(QStringLiteral(TALVEX_MACOSVPN), kMacosvpn));
    }

    void someAnswersAreFixed()
    {
        MacPlatform platform;
        QVERIFY(!platform.pptpSupports());
        QVERIFY(!platform.isPptpAsync());
        QVERIFY(platform.l2tpSupports());
        QVERIFY(platform.isL2tpAsync());
        QVERIFY(!platform.haveDisabledNetDevicesByKillSwitch());
        QVERIFY(!platform.turnOnNetDevices());
        compareFailure(platform.connectPptp(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                            QStringLiteral("secret")),
                       QString::fromUtf8("Протокол PPTP не поддерживается."));
        compareSuccess(platform.connectIKEv2(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                             QStringLiteral("secret")));
        for (const QString &tool : {kNetworksetup, kMacosvpn, kIfconfig})
            QCOMPARE(standins::calls(tool), QVector<QStringList>());
    }

    void disconnectHangsUpOneServiceAndRemovesTheOther()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\nTalvexFreeVPNnL2tp\n");
        standins::setState(kDialState, "connected\n");
        compareSuccess(MacPlatform().disconnect());
        QCOMPARE(standins::calls(kNetworksetup), (QVector<QStringList>{kHangUpCall, kRemoveCall}));
        QCOMPARE(standins::stateLines(kServices), (QStringList{QStringLiteral("Wi-Fi"), kDialled}));
        QCOMPARE(standins::stateLines(kDialState), QStringList());
    }

    void killSwitchSwitchesOneInterface()
    {
        MacPlatform platform;
        compareSuccess(platform.turnOffInternet());
        QCOMPARE(standins::stateLines(kEn0), QStringList{QStringLiteral("down")});
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en1")),
                 QStringList{QStringLiteral("up")});
        bool done = false;
        compareSuccess(platform.turnOnInternet(done));
        QVERIFY(done);
        QCOMPARE(standins::stateLines(kEn0), QStringList{QStringLiteral("up")});
        QCOMPARE(standins::calls(kIfconfig),
                 (QVector<QStringList>{{QStringLiteral("en0"), QStringLiteral("down")},
                                       {QStringLiteral("en0"), QStringLiteral("up")}}));
    }

    void killSwitchSucceedsWhenTheInterfaceIsMissing()
    {
        MacPlatform platform;
        platform.turnOffInternet();
        standins::removeState(kEn0);
        bool done = false;
        compareSuccess(platform.turnOffInternet());
        compareSuccess(platform.turnOnInternet(done));
        QVERIFY(done);
        QCOMPARE(standins::stateLines(kEn0), QStringList());
    }

    void nothingButL2tpFailsWithoutTools()
    {
        const QByteArray searchPath = qgetenv("PATH");
        qputenv("PATH", "/nowhere");
        bool done = false;
        compareSuccess(MacPlatform().disconnect());
        compareSuccess(MacPlatform().turnOffInternet());
        compareSuccess(MacPlatform().turnOnInternet(done));
        QVERIFY(done);
        qputenv("PATH", searchPath);
        QVERIFY(QFile::remove(kMacosvpn));
        compareFailure(connectL2tp(), kL2tpFailed);
        QCOMPARE(standins::calls(kNetworksetup), (QVector<QStringList>{kHangUpCall, kRemoveCall}));
    }

    void l2tpHangsUpRemovesCreatesAndDialsInThisOrder()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\n"); // of the last time
        const LogCapture log;
        compareSuccess(connectL2tp());
        QCOMPARE(standins::stateLines(QStringLiteral("macosvpn/networksetup-before")),
                 (QStringList{QStringLiteral("-disconnectpppoeservice TalvexFreeVPNL2tp "),
                              QStringLiteral("-removenetworkservice TalvexFreeVPNnL2tp ")}));
        QCOMPARE(standins::calls(kNetworksetup),
                 (QVector<QStringList>{kHangUpCall, kRemoveCall, kDialCall}));
        QCOMPARE(
            standins::calls(kMacosvpn),
            QVector<QStringList>{createCall(QStringLiteral("secret"), QStringLiteral("shared"))});
        QCOMPARE(standins::stateLines(kServices), (QStringList{QStringLiteral("Wi-Fi"), kDialled}));
        QCOMPARE(standins::stateLines(kDialState), QStringList{QStringLiteral("connected")});
        QCOMPARE(log.lines(), QStringList());
    }

    void l2tpBlocksTimersBeforeItDialsTheNewServiceAndAfterwards()
    {
        vpncore::MacPlatformLimits limits;
        limits.servicePause = 175ms;
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(10);
        QElapsedTimer elapsed;
        elapsed.start();
        compareSuccess(connectL2tp(limits));
        const qint64 duration = elapsed.elapsed();
        const QDateTime answered = QDateTime::currentDateTime();

        const QDateTime created = timeOf(kServices);
        const QDateTime dialled = timeOf(QStringLiteral("networksetup/journal"));
        // A file's time is that of the kernel's last tick, up to 10 ms ago.
        QVERIFY(created.msecsTo(dialled) >= 165);
        QVERIFY(dialled.msecsTo(answered) >= 175);
        // The event loop turns while the tools run, if they take that long, and not in the pauses.
        QVERIFY2(ticks * 10 <= duration - 300,
                 qPrintable(QStringLiteral("%1 in %2 ms").arg(ticks).arg(duration)));
    }

    void l2tpSucceedsWhenDiallingFails()
    {
        QVERIFY(QFile::rename(QStringLiteral("/sbin/networksetup"), QStringLiteral("/sbin/away")));
        standins::setState(kServices, "Wi-Fi\n");
        const OperationResult result = connectL2tp();
        QVERIFY(QFile::rename(QStringLiteral("/sbin/away"), QStringLiteral("/sbin/networksetup")));
        compareSuccess(result);
        QCOMPARE(standins::stateLines(kServices).last(), kDialled);
    }

    void l2tpFailsWithoutTheSuccessTextAndDoesNotDial_data()
    {
        QTest::addColumn<QByteArray>("lastWords");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("another text") << QByteArray("Authorization denied.\n");
        QTest::newRow("in lower case") << QByteArray("finished without errors.\n");
    }

    void l2tpFailsWithoutTheSuccessTextAndDoesNotDial()
    {
        QFETCH(QByteArray, lastWords);
        standins::setState(kLastWords, lastWords);
        compareFailure(connectL2tp(), kL2tpFailed);
        QCOMPARE(standins::calls(kMacosvpn).size(), 1);
        QVERIFY(!standins::calls(kNetworksetup).contains(kDialCall));
    }

    void l2tpUsesNoToolOutsideTheWorkingFolder()
    {
        QVERIFY(QFile::remove(kMacosvpn));
        QVERIFY(QFile::link(QStringLiteral(TALVEX_MACOSVPN), QStringLiteral("/sbin/macosvpn")));
        const OperationResult result = connectL2tp();
        QVERIFY(QFile::remove(QStringLiteral("/sbin/macosvpn")));
        compareFailure(result, kL2tpFailed);
        QCOMPARE(standins::calls(kMacosvpn), QVector<QStringList>());
    }

    void l2tpGivesUpAToolThatHangs()
    {
        standins::setState(QStringLiteral("macosvpn/hangs"), {});
        vpncore::MacPlatformLimits limits;
        limits.tool = 0s; // so that one second has to go by
        QElapsedTimer timer;
        timer.start();
        compareFailure(connectL2tp(limits), kL2tpFailed);
        QVERIFY2(timer.elapsed() >= 1'000 && timer.elapsed() < 10'000,
                 qPrintable(QString::number(timer.elapsed())));
        QVERIFY(!standins::calls(kNetworksetup).contains(kDialCall));
        standins::endHangingTool(QStringLiteral("macosvpn/hanging"));
    }

    void disconnectGivesUpAToolThatHangs()
    {
        const QByteArray searchPath = qgetenv("PATH");
        qputenv("PATH", "/tmp/work:" + searchPath);
        QFile tool(QStringLiteral("networksetup"));
        QVERIFY(tool.open(QIODevice::WriteOnly));
        // It hangs until its folder is emptied.
        tool.write("#!/bin/bash\necho $1 >>/tmp/calls\nwhile [[ -e $0 ]]; do sleep 0.05; done\n");
        tool.close();
        QVERIFY(tool.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        vpncore::MacPlatformLimits limits;
        limits.tool = -1s; // so that there is no time at all
        QElapsedTimer timer;
        timer.start();
        compareSuccess(MacPlatform(limits).disconnect());
        QVERIFY2(timer.elapsed() < 10'000, qPrintable(QString::number(timer.elapsed())));
        qputenv("PATH", searchPath);
        // Both were started all the same: two names and line feeds.
        QTRY_COMPARE(QFileInfo(QStringLiteral("/tmp/calls")).size(), qint64(46));
    }

    void l2tpFailureIsTranslated()
    {
        Translation translation;
        QVERIFY(QCoreApplication::installTranslator(&translation));
        QVERIFY(QFile::remove(kMacosvpn));
        compareFailure(connectL2tp(), QStringLiteral("L2TP ist gescheitert."));
    }

    void passwordGoesIntoTheCommandLineAsItStands_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QStringList>("call");
        const QString shared = QStringLiteral("shared");
        QTest::newRow("with a blank")
            << QStringLiteral("two words") << createCall(QStringLiteral("two words"), shared);
        QTest::newRow("with the shared secret's marker")
            << QStringLiteral("a%4b") << createCall(QStringLiteral("asharedb"), shared);
        // The lowest marker is filled, and it is in the password now.
        QTest::newRow("with an earlier marker")
            << QStringLiteral("a%1b")
            << createCall(QStringLiteral("asharedb"), QStringLiteral("%4"));
        // From the quote on, what was outside quotes is inside and the other way round.
        QTest::newRow("with a quote") << QStringLiteral("pa\"ss")
                                      << createCall(QString(), QString()).mid(0, 8)
                + QStringList{QStringLiteral("pass --shared-secret shared --force")};
    }

    void passwordGoesIntoTheCommandLineAsItStands()
    {
        QFETCH(QString, password);
        QFETCH(QStringList, call);
        connectL2tp(shortPauses(), password);
        QCOMPARE(standins::calls(kMacosvpn), QVector<QStringList>{call});
    }
};

QTEST_GUILESS_MAIN(MacPlatformServices)
#include "tst_macplatform_services.moc"
