#include "logcapture.h"
#include "standins.h"
#include "macplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTranslator>
#include <QtTest/QtTest>

using vpncore::MacPlatform;

namespace {

const QString kNetworksetup = QStringLiteral("networksetup");
const QString kMacosvpn = QStringLiteral("macosvpn");
const QString kIfconfig = QStringLiteral("ifconfig");
const QString kServices = QStringLiteral("networksetup/services");
const QString kLastWords = QStringLiteral("macosvpn/last-words");
const QString kDialled = QStringLiteral("TalvexFreeVPNL2tp");
const QString kRemoved = QStringLiteral("TalvexFreeVPNnL2tp");
const QString kL2tpFailed = QStringLiteral("warning.l2tp_connection_fail");

const QStringList kHangUpCall{QStringLiteral("-disconnectpppoeservice"), kDialled};
const QStringList kRemoveCall{QStringLiteral("-removenetworkservice"), kRemoved};
const QStringList kDialCall{QStringLiteral("-connectpppoeservice"), kDialled};

/// Nine words: what the tool gets when no value breaks the command line, and "--force".
QStringList createCall(const QString &server, const QString &user, const QString &password,
                       const QString &sharedSecret)
{
    return {QStringLiteral("create"),
            QStringLiteral("--l2tp"),
            kDialled,
            QStringLiteral("--endpoint"),
            server,
            QStringLiteral("--username"),
            user,
            QStringLiteral("--password"),
            password,
            QStringLiteral("--shared-secret"),
            sharedSecret,
            QStringLiteral("--force")};
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
    MacPlatform m_platform;
    QScopedPointer<QTemporaryDir> m_folder;

    OperationResult connectL2tp(const QString &password = QStringLiteral("secret"))
    {
        return m_platform.connectL2tp(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                      password, QStringLiteral("shared"));
    }

    /// A connect whose tool fails, and what that tool was called with. It takes no time, because
    /// the pauses come after a success.
    QVector<QStringList> failingToolCalls(const QString &password)
    {
        standins::setState(kLastWords, "Authorization denied.\n");
        connectL2tp(password);
        return standins::calls(kMacosvpn);
    }

private Q_SLOTS:
    void init()
    {
        standins::forgetState();
        m_folder.reset(new QTemporaryDir);
        QVERIFY(QDir::setCurrent(m_folder->path()));
        QVERIFY(QFile::link(QStringLiteral(TALVEX_MACOSVPN), kMacosvpn));
    }

    void pptpIsNeitherSupportedNorAsynchronous()
    {
        QVERIFY(!m_platform.pptpSupports());
        QVERIFY(!m_platform.isPptpAsync());
    }

    void l2tpIsSupportedAndAsynchronous()
    {
        QVERIFY(m_platform.l2tpSupports());
        QVERIFY(m_platform.isL2tpAsync());
    }

    void pptpFailsWithATextForTheUser()
    {
        compareFailure(m_platform.connectPptp(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                              QStringLiteral("secret")),
                       QString::fromUtf8("Протокол PPTP не поддерживается."));
    }

    void ikev2SucceedsWithoutDoingAnything()
    {
        compareSuccess(m_platform.connectIKEv2(QStringLiteral("vpn.example"),
                                               QStringLiteral("anna"), QStringLiteral("secret")));
        QCOMPARE(standins::calls(kNetworksetup), QVector<QStringList>());
        QCOMPARE(standins::calls(kMacosvpn), QVector<QStringList>());
    }

    void disconnectHangsUpAndThenRemoves()
    {
        compareSuccess(m_platform.disconnect());
        QCOMPARE(standins::calls(kNetworksetup), (QVector<QStringList>{kHangUpCall, kRemoveCall}));
    }

    void disconnectHangsUpOneServiceAndRemovesTheOther()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\nTalvexFreeVPNnL2tp\n");
        standins::setState(QStringLiteral("networksetup/pppoe_TalvexFreeVPNL2tp"), "connected\n");
        m_platform.disconnect();
        QCOMPARE(standins::stateLines(kServices), (QStringList{QStringLiteral("Wi-Fi"), kDialled}));
        QCOMPARE(standins::stateLines(QStringLiteral("networksetup/pppoe_TalvexFreeVPNL2tp")),
                 QStringList());
    }

    void disconnectSucceedsWithoutTheTool()
    {
        QVERIFY(QFile::remove(QStringLiteral("/sbin/networksetup")));
        compareSuccess(m_platform.disconnect());
        QCOMPARE(standins::calls(kNetworksetup), QVector<QStringList>());
    }

    void killSwitchTakesTheOneInterfaceDown()
    {
        compareSuccess(m_platform.turnOffInternet());
        QCOMPARE(standins::calls(kIfconfig),
                 (QVector<QStringList>{{QStringLiteral("en0"), QStringLiteral("down")}}));
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en0")),
                 QStringList{QStringLiteral("down")});
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en1")),
                 QStringList{QStringLiteral("up")});
    }

    void killSwitchBringsTheOneInterfaceUp()
    {
        standins::setState(QStringLiteral("ifconfig/en0"), "down\n");
        standins::setState(QStringLiteral("ifconfig/en1"), "down\n");
        bool done = false;
        compareSuccess(m_platform.turnOnInternet(done));
        QVERIFY(done);
        QCOMPARE(standins::calls(kIfconfig),
                 (QVector<QStringList>{{QStringLiteral("en0"), QStringLiteral("up")}}));
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en0")),
                 QStringList{QStringLiteral("up")});
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en1")),
                 QStringList{QStringLiteral("down")});
    }

    void killSwitchSucceedsWhenTheInterfaceIsMissing()
    {
        m_platform.turnOffInternet();
        standins::removeState(QStringLiteral("ifconfig/en0"));
        bool done = false;
        compareSuccess(m_platform.turnOffInternet());
        compareSuccess(m_platform.turnOnInternet(done));
        QVERIFY(done);
        QCOMPARE(standins::calls(kIfconfig).size(), 3);
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en0")), QStringList());
    }

    void killSwitchSucceedsWithoutTheTool()
    {
        QVERIFY(QFile::remove(QStringLiteral("/sbin/ifconfig")));
        bool done = false;
        compareSuccess(m_platform.turnOffInternet());
        compareSuccess(m_platform.turnOnInternet(done));
        QVERIFY(done);
    }

    void killSwitchKeepsNoDevices()
    {
        m_platform.turnOffInternet();
        QVERIFY(!m_platform.haveDisabledNetDevicesByKillSwitch());
        QVERIFY(!m_platform.turnOnNetDevices());
        QCOMPARE(standins::calls(kIfconfig).size(), 1);
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en0")),
                 QStringList{QStringLiteral("down")});
    }

    void l2tpPausesBeforeItDialsTheNewServiceAndAfterwards()
    {
        compareSuccess(connectL2tp());
        const QDateTime answered = QDateTime::currentDateTime();
        QCOMPARE(standins::stateLines(QStringLiteral("networksetup/pppoe_TalvexFreeVPNL2tp")),
                 QStringList{QStringLiteral("connected")});
        const QDateTime created = timeOf(kServices);
        const QDateTime dialled = timeOf(QStringLiteral("networksetup/journal"));
        const qint64 first = created.msecsTo(dialled);
        const qint64 second = dialled.msecsTo(answered);
        // A file's time is that of the kernel's last tick, up to 10 ms ago.
        QVERIFY2(first >= 3'490 && first < 5'000, qPrintable(QString::number(first)));
        QVERIFY2(second >= 3'500 && second < 5'000, qPrintable(QString::number(second)));
    }

    void l2tpHangsUpRemovesCreatesAndDialsInThisOrder()
    {
        compareSuccess(connectL2tp());
        QCOMPARE(standins::stateLines(QStringLiteral("macosvpn/networksetup-before")),
                 (QStringList{QStringLiteral("-disconnectpppoeservice TalvexFreeVPNL2tp "),
                              QStringLiteral("-removenetworkservice TalvexFreeVPNnL2tp ")}));
        QCOMPARE(standins::calls(kNetworksetup).mid(0, 2),
                 (QVector<QStringList>{kHangUpCall, kRemoveCall}));
        QCOMPARE(standins::calls(kNetworksetup).last(), kDialCall);
        QCOMPARE(
            standins::calls(kMacosvpn),
            QVector<QStringList>{createCall(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                            QStringLiteral("secret"), QStringLiteral("shared"))});
    }

    void l2tpBlocksTimersInItsPauses()
    {
        // What keeps the event loop turning, the tool, is over in a fraction of a second.
        int ticks = 0;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &timer, [&ticks] { ++ticks; });
        timer.start(100);
        compareSuccess(connectL2tp());
        QVERIFY2(ticks < 35, qPrintable(QString::number(ticks)));
    }

    void l2tpSucceedsWhenDiallingFails()
    {
        QFile tool(QStringLiteral("/sbin/networksetup"));
        QVERIFY(tool.remove());
        standins::setState(kServices, "Wi-Fi\n");
        compareSuccess(connectL2tp());
        QCOMPARE(standins::stateLines(kServices).last(), kDialled);
    }

    void l2tpReplacesItsServiceOfTheLastTime()
    {
        standins::setState(kServices, "Wi-Fi\nTalvexFreeVPNL2tp\n");
        compareSuccess(connectL2tp());
        QCOMPARE(standins::stateLines(kServices), (QStringList{QStringLiteral("Wi-Fi"), kDialled}));
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

    void l2tpFailsWithoutTheTool()
    {
        QVERIFY(QFile::remove(kMacosvpn));
        compareFailure(connectL2tp(), kL2tpFailed);
        QCOMPARE(standins::calls(kNetworksetup), (QVector<QStringList>{kHangUpCall, kRemoveCall}));
    }

    void l2tpUsesNoToolOutsideTheWorkingFolder()
    {
        QVERIFY(QFile::rename(kMacosvpn, QStringLiteral("/sbin/macosvpn")));
        compareFailure(connectL2tp(), kL2tpFailed);
        QCOMPARE(standins::calls(kMacosvpn), QVector<QStringList>());
        QVERIFY(QFile::remove(QStringLiteral("/sbin/macosvpn")));
    }

    void l2tpGivesUpAToolThatHangsAfterThirtySeconds()
    {
        standins::setState(QStringLiteral("macosvpn/hangs"), {});
        QElapsedTimer timer;
        timer.start();
        compareFailure(connectL2tp(), kL2tpFailed);
        QVERIFY2(timer.elapsed() >= 30'000 && timer.elapsed() < 33'000,
                 qPrintable(QString::number(timer.elapsed())));
        QVERIFY(!standins::calls(kNetworksetup).contains(kDialCall));
        standins::endHangingTool(QStringLiteral("macosvpn/hanging"));
    }

    void l2tpFailureIsTranslated()
    {
        Translation translation;
        QVERIFY(QCoreApplication::installTranslator(&translation));
        QVERIFY(QFile::remove(kMacosvpn));
        compareFailure(connectL2tp(), QStringLiteral("L2TP ist gescheitert."));
    }

    void l2tpLogsNothing()
    {
        LogCapture log;
        QCOMPARE(failingToolCalls(QStringLiteral("secret")).size(), 1);
        QCOMPARE(log.lines(), QStringList());
    }

    void passwordWithABlankStaysOneArgument()
    {
        QCOMPARE(failingToolCalls(QStringLiteral("two words")),
                 QVector<QStringList>{
                     createCall(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                QStringLiteral("two words"), QStringLiteral("shared"))});
    }

    void passwordWithAMarkerIsFilledWithTheSharedSecret()
    {
        QCOMPARE(
            failingToolCalls(QStringLiteral("a%4b")),
            QVector<QStringList>{createCall(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                            QStringLiteral("asharedb"), QStringLiteral("shared"))});
    }

    void passwordWithAnEarlierMarkerTakesTheSharedSecret()
    {
        // The lowest marker is filled, and it is in the password now.
        QCOMPARE(
            failingToolCalls(QStringLiteral("a%1b")),
            QVector<QStringList>{createCall(QStringLiteral("vpn.example"), QStringLiteral("anna"),
                                            QStringLiteral("asharedb"), QStringLiteral("%4"))});
    }

    void passwordWithAQuoteBreaksTheCommandLine()
    {
        // From the quote on, what was outside quotes is inside and the other way round.
        QStringList expected =
            createCall(QStringLiteral("vpn.example"), QStringLiteral("anna"), QString(), QString())
                .mid(0, 8);
        expected.append(QStringLiteral("pass --shared-secret shared --force"));
        QCOMPARE(failingToolCalls(QStringLiteral("pa\"ss")), QVector<QStringList>{expected});
    }

    void passwordWithAQuoteFailsTheConnect()
    {
        compareFailure(connectL2tp(QStringLiteral("pa\"ss")), kL2tpFailed);
    }
};

QTEST_GUILESS_MAIN(MacPlatformServices)
#include "tst_macplatform_services.moc"
