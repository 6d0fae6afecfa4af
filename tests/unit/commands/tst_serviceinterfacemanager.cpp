#include "serviceinterfacemanager.h"

#include "iovpnconnection.h"
#include "logcapture.h"

#include <QtTest/QtTest>

#include <functional>

using namespace std::chrono_literals;

namespace {

/// JSON with single quotes where the text has double ones.
QString json(const char *text)
{
    return QString::fromUtf8(text).replace(QLatin1Char('\''), QLatin1Char('"'));
}

const QString kConnectUdp = json("{'type':'connect','cmd':'ovpnUdp'}");
const QString kConnectTcp = json("{'type':'connect','cmd':'ovpnTcp'}");
const QString kDisconnect = json("{'type':'openvpn','cmd':'disconnect'}");

const QString kConnectAnswer =
    json("{'arg':'connect','cmd':'connect','status':true,'type':'openvpn'}");
const QString kDisconnectAnswer =
    json("{'arg':'disconnect','cmd':'disconnect','status':true,'type':'openvpn'}");

const QString kOvertaken = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

VpnServerInformation server(const char *host = "host")
{
    VpnServerInformation server;
    server.host = QString::fromLatin1(host);
    server.key = QStringLiteral("key");
    server.tcpPort = 443;
    return server;
}

/// Notes its calls, and answers what it is told to.
class FakeConnection : public vpncore::IOvpnConnection
{
public:
    OperationResult connectUdp(const VpnServerInformation &server) override
    {
        return connect(QStringLiteral("udp "), server);
    }

    OperationResult connectTcp(const VpnServerInformation &server) override
    {
        return connect(QStringLiteral("tcp "), server);
    }

    OperationResult disconnect() override
    {
        calls.append(QStringLiteral("disconnect"));
        if (onCall)
            onCall();
        m_wait.quit();
        return result;
    }

    QStringList calls;
    OperationResult result;
    std::function<void()> onCall;
    /// A connect waits until disconnect() is called, as a real one does.
    bool isSlow = false;

private:
    OperationResult connect(const QString &transport, const VpnServerInformation &server)
    {
        calls.append(transport + server.host + server.key + QString::number(server.tcpPort));
        if (onCall)
            onCall();
        if (!isSlow)
            return result;
        m_wait.exec();
        return OperationResult::failed(QStringLiteral("gave up"));
    }

    QEventLoop m_wait;
};

} // namespace

/// What the commands of a client do, against a connection that only notes its calls.
class ServiceInterfaceManagerTest : public QObject
{
    Q_OBJECT

private:
    void use(std::chrono::milliseconds heartbeatLimit)
    {
        m_manager.reset(new ServiceInterfaceManager(m_connection.data(),
                                                    QSharedPointer<CommandTotals>::create(), 501,
                                                    heartbeatLimit, nullptr));
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this,
                [this](const QString &text, const OperationResult &result) {
                    m_answers.append(text);
                    m_messages.append(result.message);
                    m_result = result;
                });
    }

    /// @return the watch over the client, the only timer.
    QTimer *watch() const
    {
        const auto timers =
            m_manager->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
        return timers.size() == 1 ? timers.first() : nullptr;
    }

    QScopedPointer<FakeConnection> m_connection;
    QScopedPointer<ServiceInterfaceManager> m_manager;
    QStringList m_answers;
    QStringList m_messages;
    OperationResult m_result; ///< of the last answer

private Q_SLOTS:
    void init()
    {
        m_connection.reset(new FakeConnection);
        use(ServiceInterfaceManager::kHeartbeatLimit);
        m_answers.clear();
        m_messages.clear();
    }

    void cleanup() { m_manager.reset(); }

    void valueOfAKeyIsRead_data()
    {
        QTest::addColumn<QString>("value");
        const auto row = [](const char *text, const char *value) {
            QTest::newRow(text) << QString::fromUtf8(value);
        };
        row("{'key':'value'}", "value");
        row(" {\r\n\t'key' : 'value' } \n", "value");
        row("{'a':'b','key':'\u0416\u20ac','c':{}}", "\u0416\u20ac");
        row("{'\\u006bey':'a\\\\\\u0041\\n'}", "a\\A\n");
        row("{'key':'first','key':'second'}", "second");
        row("{'key':{'a':'b'},'key':'value'}", ""); // parsing it would lose memory
        for (const char *text :
             {"{'key':7}", "{'key':true}", "{'key':null}", "{'key':['value']}",
              "{'key':{'key':'value'}}", "{'Key':'value'}", "[{'key':'value'}]", "['key','value']",
              "'key'", "", "key=value", "{'key':'value'", "{'key':'value'} x", "{'key':'value',}"})
            row(text, "");
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
        for (const char *type : {"connect", "disconnect"})
            QTest::newRow(type)
                << json("{'cmd':'\u0416','status':false,'type':'%1'}").arg(QLatin1String(type));
        QTest::newRow("OpenVPN") << QStringLiteral("{}");
        QTest::newRow("") << QStringLiteral("{}");
    }

    void answerHasTheKeysOfItsType()
    {
        QFETCH(QString, text);
        m_manager->parseVpnCmd(kDisconnect, {}); // whose status is true, and false again after it
        const LogCapture log;
        m_manager->sendCmd(QString::fromLatin1(QTest::currentDataTag()), QStringLiteral("\u0416"),
                           OperationResult{42, false, QStringLiteral("a text %1")});
        QCOMPARE(m_answers, (QStringList{kDisconnectAnswer, text}));
        const QString logged = QString(text).replace(QLatin1Char('"'), QLatin1String("\\\""));
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("Send command service \"%1\"").arg(logged)});
        QCOMPARE(m_result.code, 42);
        QCOMPARE(m_result.success, false);
        QCOMPARE(m_result.message, QStringLiteral("a text %1"));
    }

    void onlyThreeCommandsHaveAnEffect_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QStringList>("log");
        const auto row = [](const char *message, const char *call, const char *type,
                            const char *command = nullptr) {
            QStringList log{QStringLiteral("Command status  \"%1\"").arg(QLatin1String(type))};
            if (command)
                log.append(QString::fromLatin1(command));
            QTest::newRow(message) << QString::fromLatin1(call) << log;
        };
        row("{'type':'openvpn','cmd':'disconnect'}", "disconnect", "openvpn",
            "result params  \"disconnect\"");
        row("{'type':'connect','cmd':'ovpnUdp'}", "udp hostkey443", "connect",
            "Connect cmd \"ovpnUdp\"");
        row("{ 'cmd' : 'ovpnTcp',\n 'arg':'x', 'type' : 'connect' }", "tcp hostkey443", "connect",
            "Connect cmd \"ovpnTcp\"");
        row("{'type':'openvpn','cmd':'connect'}", "", "openvpn", "result params  \"connect\"");
        row("{'type':'openvpn','cmd':'ovpnUdp'}", "", "openvpn", "result params  \"ovpnUdp\"");
        row("{'type':'connect','cmd':'disconnect'}", "", "connect", "Connect cmd \"disconnect\"");
        row("{'type':'connect','cmd':'OVPNUDP'}", "", "connect", "Connect cmd \"OVPNUDP\"");
        row("{'type':'connect','cmd':7}", "", "connect", "Connect cmd \"\"");
        row("{'type':'connect'}", "", "connect", "Connect cmd \"\"");
        row("{'type':'OpenVPN','cmd':'disconnect'}", "", "OpenVPN");
        row("{'type':'disconnect','cmd':'disconnect'}", "", "disconnect");
        for (const char *text : {"{'cmd':'ovpnUdp'}", "[{'type':'connect','cmd':'ovpnUdp'}]",
                                 "{'type':'connect','cmd':'ovpnUdp'", "connect", ""})
            row(text, "", "");
    }

    void onlyThreeCommandsHaveAnEffect()
    {
        QFETCH(QString, call);
        QFETCH(QStringList, log);
        QString message = json(QTest::currentDataTag());
        const QStringList calls = call.isEmpty() ? QStringList() : QStringList(call);
        QStringList answers;
        if (!call.isEmpty())
            answers.append(call == QLatin1String("disconnect") ? kDisconnectAnswer
                                                               : kConnectAnswer);
        m_connection->result = {3, false, QStringLiteral("warning.x")};
        m_connection->onCall = [&] { QCOMPARE(m_answers, QStringList()); };

        LogCapture capture;
        m_manager->parseVpnCmd(message, server());
        QCOMPARE(capture.lines().mid(0, log.size()), log);
        QCOMPARE(capture.lines().size(), log.size() + answers.size());
        QCOMPARE(m_connection->calls, calls);
        QCOMPARE(m_answers, answers);
        QVERIFY(calls.isEmpty() || (m_result.code == 3 && !m_result.success));
        QCOMPARE(m_messages.join(QString()), QLatin1String(calls.isEmpty() ? "" : "warning.x"));

        // From a client, it is logged when it arrives and executed from the event loop.
        m_connection->calls.clear();
        m_answers.clear();
        capture.clear();
        VpnServerInformation record = server();
        m_manager->vpn_command(message, record);
        message = kDisconnect; // the next packet overwrites both where they are
        record = {};
        QCOMPARE(capture.lines(), log);
        QCOMPARE(m_connection->calls, QStringList());
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
        QCOMPARE(m_connection->calls, calls);
        QCOMPARE(m_answers, answers);
    }

    void overtakenCommandsAreAnsweredInTheirOrder()
    {
        m_connection->isSlow = true;
        m_manager->vpn_command(kConnectUdp, server("first"));
        QTimer::singleShot(20, this, [this] {
            m_manager->vpn_command(QStringLiteral("no command"), server("not at all"));
            m_manager->server_slot(true);
        });
        QTimer::singleShot(40, this, [this] {
            QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp firstkey443")});
            m_connection->isSlow = false;
            m_manager->vpn_command(kConnectUdp, server("second"));
            m_manager->vpn_command(kDisconnect, {});
            m_manager->vpn_command(kConnectTcp, server("last"));
        });
        QTRY_COMPARE(
            m_answers,
            (QStringList{kConnectAnswer, kConnectAnswer, kDisconnectAnswer, kConnectAnswer}));
        QCOMPARE(m_messages,
                 (QStringList{QStringLiteral("gave up"), kOvertaken, QString(), QString()}));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp firstkey443"), QStringLiteral("disconnect"),
                              QStringLiteral("disconnect"), QStringLiteral("tcp lastkey443")}));
    }

    void directCallInsideAWaitingConnectNests()
    {
        m_connection->isSlow = true;
        QTimer::singleShot(0, this, [this] { m_manager->parseVpnCmd(kDisconnect, {}); });
        m_manager->parseVpnCmd(kConnectUdp, server());
        QCOMPARE(m_answers, (QStringList{kDisconnectAnswer, kConnectAnswer}));
    }

    void everyHeartbeatStartsThirtySecondsAnew()
    {
        const LogCapture log;
        QVERIFY(watch());
        m_manager->parseVpnCmd(kConnectUdp, server());
        QVERIFY(!watch()->isActive()); // a client without a heartbeat is not watched
        m_manager->server_slot(true);
        QCOMPARE(watch()->interval(), 30'000);
        QCOMPARE(watch()->timerType(), Qt::PreciseTimer);
        QTest::qSleep(100);
        const int left = watch()->remainingTime();
        m_manager->parseVpnCmd(kConnectUdp, server());
        QVERIFY(watch()->remainingTime() <= left); // a command is no heartbeat
        m_manager->server_slot(false);
        QVERIFY(watch()->remainingTime() > left);
        QCOMPARE(watch()->interval(), 30'000);
        QCOMPARE(log.lines().filter(QStringLiteral("Replica")),
                 (QStringList{QStringLiteral("Replica state is  true"),
                              QStringLiteral("Replica state is  false")}));
    }

    void silenceAfterAHeartbeatDisconnectsOnce()
    {
        const LogCapture log;
        use(50ms);
        for (int i = 1; i <= 2; ++i) { // a heartbeat after a time-out begins the watch anew
            QElapsedTimer silence;
            silence.start();
            m_manager->server_slot(true);
            // A heartbeat that comes during the disconnect does not count.
            m_connection->onCall = [this] { m_manager->server_slot(true); };
            QTRY_COMPARE(m_connection->calls.size(), i);
            QVERIFY(silence.elapsed() >= 49);
            QCOMPARE(log.count(QStringLiteral("Client was disconnected")), i);
            QVERIFY(!watch()->isActive());
        }
        QCOMPARE(m_answers, QStringList());
    }

    void timeOutEndsAConnectThatRuns()
    {
        use(50ms);
        m_connection->isSlow = true;
        m_manager->server_slot(true);
        m_manager->vpn_command(kConnectUdp, server());
        QTRY_COMPARE(m_messages, QStringList{QStringLiteral("gave up")});
    }

    void timeOutEndsWhatWaits()
    {
        use(50ms);
        m_connection->onCall = [this] {
            if (m_connection->calls.size() > 1)
                return;
            // A slow disconnect, behind which commands wait when the limit passes.
            m_manager->vpn_command(kConnectUdp, server());
            m_manager->vpn_command(kDisconnect, {});
            QTRY_COMPARE(m_connection->calls.size(), 2);
        };
        m_manager->server_slot(true);
        m_manager->vpn_command(kDisconnect, {});
        m_connection->result = OperationResult::failed(QStringLiteral("x"));
        QTRY_COMPARE(m_answers,
                     (QStringList{kConnectAnswer, kDisconnectAnswer, kDisconnectAnswer}));
        QCOMPARE(m_messages, (QStringList{kOvertaken, QString(), QStringLiteral("x")}));
        QTest::qWait(10);
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("disconnect"), QStringLiteral("disconnect")}));
    }
};

QTEST_GUILESS_MAIN(ServiceInterfaceManagerTest)
#include "tst_serviceinterfacemanager.moc"
