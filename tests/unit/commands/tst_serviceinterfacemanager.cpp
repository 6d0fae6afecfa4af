#include "serviceinterfacemanager.h"

#include "iovpnconnection.h"
#include "logcapture.h"

#include <QtCore/QEventLoop>
#include <QtTest/QtTest>

#include <functional>

namespace {

/// JSON with single quotes where the text has double ones.
QString json(const char *text)
{
    return QString::fromUtf8(text).replace(QLatin1Char('\''), QLatin1Char('"'));
}

/// A text as the debug stream writes it.
QString quoted(QString text)
{
    return QLatin1Char('"') + text.replace(QLatin1Char('"'), QLatin1String("\\\""))
        + QLatin1Char('"');
}

const QString kConnectUdp = json("{'type':'connect','cmd':'ovpnUdp'}");
const QString kConnectTcp = json("{'type':'connect','cmd':'ovpnTcp'}");
const QString kDisconnect = json("{'type':'openvpn','cmd':'disconnect'}");

const QString kConnectAnswer =
    json("{'arg':'connect','cmd':'connect','status':true,'type':'openvpn'}");
const QString kDisconnectAnswer =
    json("{'arg':'disconnect','cmd':'disconnect','status':true,'type':'openvpn'}");

const QString kOvertaken = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

constexpr std::chrono::milliseconds kLimit{300};

VpnServerInformation server(const char *host = "host")
{
    VpnServerInformation server;
    server.name = QStringLiteral("name");
    server.id = 5;
    server.info = QStringLiteral("info");
    server.host = QString::fromLatin1(host);
    server.ca = QStringLiteral("ca");
    server.key = QStringLiteral("key");
    server.cert = QStringLiteral("cert");
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

QByteArray bytesOf(const VpnServerInformation &server)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << server;
    return bytes;
}

/// Notes its calls, and answers what it is told to.
class FakeConnection : public vpncore::IOvpnConnection
{
public:
    OperationResult connectUdp(const VpnServerInformation &server) override
    {
        return connect(QStringLiteral("udp ") + server.host, server);
    }

    OperationResult connectTcp(const VpnServerInformation &server) override
    {
        return connect(QStringLiteral("tcp ") + server.host, server);
    }

    OperationResult disconnect() override
    {
        calls.append(QStringLiteral("disconnect"));
        if (onDisconnect)
            onDisconnect();
        m_wait.quit();
        return disconnectResult;
    }

    QStringList calls;
    VpnServerInformation lastServer;
    OperationResult connectResult;
    OperationResult disconnectResult;
    std::function<void()> onConnect;
    std::function<void()> onDisconnect;
    /// A connect waits until disconnect() is called, as a real one does.
    bool isSlow = false;

private:
    OperationResult connect(const QString &call, const VpnServerInformation &server)
    {
        calls.append(call);
        lastServer = server;
        if (onConnect)
            onConnect();
        if (!isSlow)
            return connectResult;
        m_wait.exec();
        return OperationResult::failed(QStringLiteral("gave up"));
    }

    QEventLoop m_wait;
};

} // namespace

/// What the commands of a client do, against a connection that only notes its calls.
class CommandDispatcher : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<FakeConnection> m_connection;
    QScopedPointer<ServiceInterfaceManager> m_manager;
    QStringList m_answers;
    QVector<OperationResult> m_results;

    /// Turns the event loop until nothing that is posted is left.
    static void settle()
    {
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
    }

    QStringList messages() const
    {
        QStringList messages;
        for (const OperationResult &result : m_results)
            messages.append(result.message);
        return messages;
    }

private Q_SLOTS:
    void init()
    {
        m_answers.clear();
        m_results.clear();
        m_connection.reset(new FakeConnection);
        m_manager.reset(new ServiceInterfaceManager(
            m_connection.data(), QSharedPointer<CommandTotals>::create(), 501, kLimit, nullptr));
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this,
                [this](const QString &text, const OperationResult &result) {
                    m_answers.append(text);
                    m_results.append(result);
                });
    }

    void cleanup()
    {
        m_manager.reset();
        m_connection.reset();
    }

    void lifeLogsOneLineAndCallsNothing()
    {
        const LogCapture log;
        m_manager.reset(new ServiceInterfaceManager(
            m_connection.data(), QSharedPointer<CommandTotals>::create(), 501, kLimit, nullptr));
        m_manager->server_slot(true);
        m_manager->vpn_command(kDisconnect, {}); // which does not begin any more
        m_manager.reset();
        QTest::qWait(int(kLimit.count()) + 50);
        QCOMPARE(log.lines(QtDebugMsg).first(), QStringLiteral("Source Node Started"));
        QCOMPARE(log.count(QStringLiteral("Client was disconnected")), 0);
        QCOMPARE(m_connection->calls, QStringList());
    }

    void parentOwnsTheManagerWithAConnectionOfItsOwn()
    {
        QObject parent;
        auto *manager =
            new ServiceInterfaceManager(QSharedPointer<CommandTotals>::create(), 501, &parent);
        QCOMPARE(manager->parent(), &parent);
        QSignalSpy answers(manager, &ServiceInterfaceManager::vpn_cmd_result);
        manager->parseVpnCmd(kDisconnect, {});
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers.first().first().toString(), kDisconnectAnswer);
    }

    void clientMayBeSilentForThirtySeconds()
    {
        QCOMPARE(ServiceInterfaceManager::kHeartbeatLimit.count(), 30'000);
        const ServiceInterfaceManager manager(QSharedPointer<CommandTotals>::create(), 501,
                                              nullptr);
        const QList<QTimer *> timers =
            manager.findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
        QCOMPARE(timers.size(), 1);
        const_cast<ServiceInterfaceManager &>(manager).server_slot(true);
        QCOMPARE(timers.first()->interval(), 30'000);
        QCOMPARE(timers.first()->timerType(), Qt::PreciseTimer);
    }

    void valueOfAKeyIsRead_data()
    {
        QTest::addColumn<QString>("value");
        const auto row = [](const char *text, const char *value) {
            QTest::newRow(text) << QString::fromUtf8(value);
        };
        row("{'key':'value'}", "value");
        row(" {\r\n\t'key' : 'value' } \n", "value");
        row("{'a':'b','key':'value','c':{}}", "value");
        row("{'key':'\u0416\u20ac'}", "\u0416\u20ac");
        row("{'\\u006bey':'a\\\\\\u0041\\n'}", "a\\A\n");
        row("{'key':'first','key':'second'}", "second");
        row("{'key':{'a':'b'},'key':'value'}", ""); // parsing it would lose memory
        row("{'key':7}", "");
        row("{'key':true}", "");
        row("{'key':null}", "");
        row("{'key':['value']}", "");
        row("{'key':{'key':'value'}}", "");
        row("{'Key':'value'}", "");
        row("{'a':{'key':'value'}}", "");
        row("['key','value']", "");
        row("[{'key':'value'}]", "");
        row("'key'", "");
        row("", "");
        row("key=value", "");
        row("{'key':'value'", "");
        row("{'key':'value'} x", "");
        row("{'key':'value',}", "");
    }

    void valueOfAKeyIsRead()
    {
        QFETCH(QString, value);
        QCOMPARE(m_manager->getJsonValue(QStringLiteral("key"), json(QTest::currentDataTag())),
                 value);
    }

    void answerHasTheKeysOfItsType_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("openvpn") << json("{'arg':'\u0416','cmd':'\u0416','status':false,"
                                         "'type':'openvpn'}");
        QTest::newRow("connect") << json("{'cmd':'\u0416','status':false,'type':'connect'}");
        QTest::newRow("disconnect") << json("{'cmd':'\u0416','status':false,'type':'disconnect'}");
        QTest::newRow("OpenVPN") << QStringLiteral("{}");
        QTest::newRow("") << QStringLiteral("{}");
    }

    void answerHasTheKeysOfItsType()
    {
        QFETCH(QString, text);
        const LogCapture log;
        QStringList logged;
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this,
                [&] { logged = log.lines(QtDebugMsg); });
        m_manager->sendCmd(QString::fromLatin1(QTest::currentDataTag()), QStringLiteral("\u0416"),
                           OperationResult{42, false, QStringLiteral("a text %1")});
        QCOMPARE(m_answers, QStringList{text});
        QCOMPARE(logged, QStringList{QStringLiteral("Send command service ") + quoted(text)});
        QCOMPARE(m_results.first().code, 42);
        QCOMPARE(m_results.first().success, false);
        QCOMPARE(m_results.first().message, QStringLiteral("a text %1"));
    }

    void statusIsTrueForACommandAndFalseAgainAfterIt()
    {
        m_manager->parseVpnCmd(kDisconnect, {});
        m_manager->sendCmd(QStringLiteral("disconnect"), QStringLiteral("x"), {});
        QCOMPARE(m_answers,
                 (QStringList{kDisconnectAnswer,
                              json("{'cmd':'x','status':false,'type':'disconnect'}")}));
    }

    void commandCallsItsOperationAndPassesOnItsOutcome_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QString>("answer");
        const auto row = [](const char *message, const char *call, const QString &answer) {
            QTest::newRow(message) << QString::fromLatin1(call) << answer;
        };
        row("{'type':'openvpn','cmd':'disconnect'}", "disconnect", kDisconnectAnswer);
        row("{'type':'connect','cmd':'ovpnUdp'}", "udp host", kConnectAnswer);
        row("{'type':'connect','cmd':'ovpnTcp'}", "tcp host", kConnectAnswer);
        row("{ 'cmd' : 'ovpnTcp',\n 'arg':'x', 'type' : 'connect' }", "tcp host", kConnectAnswer);
    }

    void commandCallsItsOperationAndPassesOnItsOutcome()
    {
        QFETCH(QString, call);
        QFETCH(QString, answer);
        m_connection->connectResult = m_connection->disconnectResult =
            OperationResult{3, false, QStringLiteral("warning.x")};
        int answersDuringTheOperation = -1;
        m_connection->onConnect =
            m_connection->onDisconnect = [&] { answersDuringTheOperation = m_answers.size(); };
        m_manager->parseVpnCmd(json(QTest::currentDataTag()), server());
        QCOMPARE(m_connection->calls, QStringList{call});
        QCOMPARE(answersDuringTheOperation, 0);
        QCOMPARE(m_answers, QStringList{answer});
        QCOMPARE(m_results.first().code, 3);
        QCOMPARE(m_results.first().success, false);
        QCOMPARE(m_results.first().message, QStringLiteral("warning.x"));
        if (call != QLatin1String("disconnect"))
            QCOMPARE(bytesOf(m_connection->lastServer), bytesOf(server()));
    }

    void textThatIsNoCommandDoesNothing_data()
    {
        QTest::addColumn<QStringList>("log");
        const auto row = [](const char *message, QStringList log) {
            QTest::newRow(message) << log;
        };
        const QString openvpn = QStringLiteral("Command status  \"openvpn\"");
        const QString connect = QStringLiteral("Command status  \"connect\"");
        const QString empty = QStringLiteral("Command status  \"\"");
        row("{'type':'openvpn','cmd':'connect'}",
            {openvpn, QStringLiteral("result params  \"connect\"")});
        row("{'type':'openvpn','cmd':'ovpnUdp'}",
            {openvpn, QStringLiteral("result params  \"ovpnUdp\"")});
        row("{'type':'connect','cmd':'disconnect'}",
            {connect, QStringLiteral("Connect cmd \"disconnect\"")});
        row("{'type':'connect','cmd':'OVPNUDP'}",
            {connect, QStringLiteral("Connect cmd \"OVPNUDP\"")});
        row("{'type':'connect','cmd':7}", {connect, QStringLiteral("Connect cmd \"\"")});
        row("{'type':'connect'}", {connect, QStringLiteral("Connect cmd \"\"")});
        row("{'type':'OpenVPN','cmd':'disconnect'}",
            {QStringLiteral("Command status  \"OpenVPN\"")});
        row("{'type':'disconnect','cmd':'disconnect'}",
            {QStringLiteral("Command status  \"disconnect\"")});
        row("{'cmd':'ovpnUdp'}", {empty});
        row("[{'type':'connect','cmd':'ovpnUdp'}]", {empty});
        row("{'type':'connect','cmd':'ovpnUdp'", {empty});
        row("connect", {empty});
        row("", {empty});
    }

    void textThatIsNoCommandDoesNothing()
    {
        QFETCH(QStringList, log);
        const QString message = json(QTest::currentDataTag());
        LogCapture capture;
        m_manager->parseVpnCmd(message, server());
        QCOMPARE(capture.lines(QtDebugMsg), log);
        m_manager->vpn_command(message, server());
        settle();
        QCOMPARE(capture.lines(), log + log);
        QCOMPARE(m_connection->calls, QStringList());
        QCOMPARE(m_answers, QStringList());
    }

    void commandIsLoggedWhenItArrivesAndAnsweredFromTheEventLoop()
    {
        LogCapture log;
        QString message = kConnectTcp;
        VpnServerInformation record = server();
        m_manager->vpn_command(message, record);
        // The next packet overwrites both where they are.
        message = kDisconnect;
        record = {};
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Command status  \"connect\""),
                              QStringLiteral("Connect cmd \"ovpnTcp\"")}));
        QCOMPARE(m_connection->calls, QStringList());
        QTRY_COMPARE(m_answers, QStringList{kConnectAnswer});
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("tcp host")});
        QCOMPARE(bytesOf(m_connection->lastServer), bytesOf(server()));
    }

    void overtakenCommandsAreAnsweredInTheirOrder()
    {
        m_connection->isSlow = true;
        m_manager->vpn_command(kConnectUdp, server("first"));
        QTimer::singleShot(20, this, [this] {
            QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp first")});
            m_connection->isSlow = false;
            m_manager->vpn_command(kConnectUdp, server("second"));
            m_manager->vpn_command(QStringLiteral("no command"), server("not at all"));
            m_manager->vpn_command(kDisconnect, {});
            m_manager->vpn_command(kConnectTcp, server("last"));
        });
        QTRY_COMPARE(
            m_answers,
            (QStringList{kConnectAnswer, kConnectAnswer, kDisconnectAnswer, kConnectAnswer}));
        QCOMPARE(messages(),
                 (QStringList{QStringLiteral("gave up"), kOvertaken, QString(), QString()}));
        QCOMPARE(m_results.at(1).code, 1);
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect"),
                              QStringLiteral("disconnect"), QStringLiteral("tcp last")}));
    }

    void disconnectsThatAreTooManyAreAnsweredAsDone()
    {
        for (int i = 0; i < 10'001; ++i)
            m_manager->vpn_command(kDisconnect, {});
        QCOMPARE(m_answers, QStringList{kDisconnectAnswer});
        QVERIFY(m_results.first().success);
        QCOMPARE(m_connection->calls, QStringList());
    }

    void nothingButACommandDisturbsAWaitingConnect()
    {
        m_connection->isSlow = true;
        m_manager->vpn_command(kConnectUdp, server());
        QTimer::singleShot(20, this, [this] {
            m_manager->vpn_command(QStringLiteral("no command"), {});
            m_manager->server_slot(true);
        });
        QTimer::singleShot(60, this, [this] {
            QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
            QCOMPARE(m_answers, QStringList());
            m_connection->disconnect();
        });
        QTRY_COMPARE(messages(), QStringList{QStringLiteral("gave up")});
    }

    void directCallInsideAWaitingConnectNests()
    {
        m_connection->isSlow = true;
        QTimer::singleShot(0, this, [this] { m_manager->parseVpnCmd(kDisconnect, {}); });
        m_manager->parseVpnCmd(kConnectUdp, server());
        QCOMPARE(m_answers, (QStringList{kDisconnectAnswer, kConnectAnswer}));
    }

    void heartbeatIsLogged()
    {
        const LogCapture log;
        m_manager->server_slot(true);
        m_manager->server_slot(false);
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Replica state is  true"),
                              QStringLiteral("Replica state is  false")}));
        QCOMPARE(m_answers, QStringList());
    }

    void silenceAfterAHeartbeatDisconnectsOnce()
    {
        const LogCapture log;
        QStringList loggedBefore;
        m_connection->onDisconnect = [&] { loggedBefore = log.lines(); };
        QElapsedTimer silence;
        for (int i = 1; i <= 2; ++i) { // a heartbeat after a time-out begins the watch anew
            m_manager->server_slot(true);
            silence.start();
            QTRY_COMPARE(m_connection->calls.size(), i);
            QVERIFY2(silence.elapsed() >= 299, qPrintable(QString::number(silence.elapsed())));
            QCOMPARE(loggedBefore.last(), QStringLiteral("Client was disconnected"));
            QTest::qWait(int(kLimit.count()) + 100);
            QCOMPARE(m_connection->calls.size(), i);
        }
        QCOMPARE(m_answers, QStringList());
    }

    void everyHeartbeatPostponesTheTimeOutByTheWholeLimit()
    {
        m_manager->server_slot(true);
        QElapsedTimer silence;
        for (int i = 0; i < 3; ++i) {
            QTest::qWait(200);
            QCOMPARE(m_connection->calls, QStringList());
            m_manager->server_slot(false);
            silence.start();
        }
        QTRY_COMPARE(m_connection->calls, QStringList{QStringLiteral("disconnect")});
        QVERIFY2(silence.elapsed() >= 299, qPrintable(QString::number(silence.elapsed())));
    }

    void commandsAreNoHeartbeat()
    {
        m_manager->server_slot(true);
        QElapsedTimer silence;
        silence.start();
        QTest::qWait(200);
        m_manager->vpn_command(kConnectUdp, server());
        QTRY_COMPARE(m_connection->calls,
                     (QStringList{QStringLiteral("udp host"), QStringLiteral("disconnect")}));
        QVERIFY2(silence.elapsed() < 450, qPrintable(QString::number(silence.elapsed())));
    }

    void clientWithoutAHeartbeatIsNotWatched()
    {
        m_manager->parseVpnCmd(kConnectUdp, server());
        QTest::qWait(int(kLimit.count()) + 100);
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
    }

    void timeOutEndsWhatWaits()
    {
        m_connection->onDisconnect = [this] {
            if (m_connection->calls.size() > 1)
                return;
            // A slow disconnect, behind which a connect waits when the limit passes.
            m_manager->vpn_command(kConnectUdp, server());
            QTRY_COMPARE(m_connection->calls.size(), 2);
        };
        m_manager->server_slot(true);
        m_manager->vpn_command(kDisconnect, {});
        QTRY_COMPARE(m_answers, (QStringList{kConnectAnswer, kDisconnectAnswer}));
        settle();
        QCOMPARE(messages(), (QStringList{kOvertaken, QString()}));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("disconnect"), QStringLiteral("disconnect")}));
    }

    /// The watch stops only after its disconnect.
    void heartbeatDuringTheDisconnectOfATimeOutDoesNotCount()
    {
        m_connection->onDisconnect = [this] { m_manager->server_slot(true); };
        m_manager->server_slot(true);
        QTRY_COMPARE(m_connection->calls.size(), 1);
        QTest::qWait(int(kLimit.count()) + 100);
        QCOMPARE(m_connection->calls.size(), 1);
    }
};

QTEST_GUILESS_MAIN(CommandDispatcher)
#include "tst_serviceinterfacemanager.moc"
