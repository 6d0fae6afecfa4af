#include "serviceinterfacemanager.h"

#include "iovpnconnection.h"
#include "logcapture.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <functional>

using namespace std::chrono_literals;

namespace {

/// JSON with single quotes where the text has double ones.
QString json(const char *text)
{
    return QString(text).replace('\'', '"');
}

const QString kConnectUdp = json("{'type':'connect','cmd':'ovpnUdp'}");
const QString kDisconnect = json("{'type':'openvpn','cmd':'disconnect'}");

const QString kConnectAnswer =
    json("{'arg':'connect','cmd':'connect','status':true,'type':'openvpn'}");
const QString kDisconnectAnswer =
    json("{'arg':'disconnect','cmd':'disconnect','status':true,'type':'openvpn'}");

VpnServerInformation server()
{
    VpnServerInformation server;
    server.host = "host";
    server.key = "key";
    return server;
}

/// Notes its calls, and answers what it is told to.
class FakeConnection : public vpncore::IOvpnConnection
{
public:
    OperationResult connectUdp(const VpnServerInformation &server) override
    {
        return note("udp " + server.host + server.key);
    }

    OperationResult connectTcp(const VpnServerInformation &server) override
    {
        return note("tcp " + server.host + server.key);
    }

    OperationResult disconnect() override { return note("disconnect"); }

    QStringList calls;
    OperationResult result;
    std::function<void()> onCall = [] {};

private:
    OperationResult note(const QString &call)
    {
        calls.append(call);
        onCall();
        return result;
    }
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
                    m_results.append(result);
                });
        connect(m_manager.data(), &ServiceInterfaceManager::finished, this,
                [this] { m_answers.append("nobody awaits this"); });
    }

    /// @return the watch over the client, the only timer.
    QTimer *watch() const
    {
        return m_manager->findChild<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
    }

    QScopedPointer<FakeConnection> m_connection;
    QScopedPointer<ServiceInterfaceManager> m_manager;
    QStringList m_answers;
    QVector<OperationResult> m_results;

private Q_SLOTS:
    void init()
    {
        m_manager.reset();
        m_connection.reset(new FakeConnection);
        use(ServiceInterfaceManager::kHeartbeatLimit);
        m_answers.clear();
        m_results.clear();
    }

    void valueOfAKeyIsRead_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("{'key':'value'}") << "value";
        QTest::newRow(" {\r\n\t'key' : 'value' } \n") << "value";
        QTest::newRow("{'a':'b','key':'\u0416\u20ac','c':{}}") << "\u0416\u20ac";
        QTest::newRow("{'\\u006bey':'a\\\\\\u0041\\n'}") << "a\\A\n";
        QTest::newRow("{'key':'first','key':'second'}") << "second";
        for (const char *text :
             {"{'key':7}", "{'key':true}", "{'key':null}", "{'key':['value']}",
              "{'key':{'key':'value'}}", "{'Key':'value'}", "[{'key':'value'}]", "['key','value']",
              "'key'", "", "key=value", "{'key':'value'", "{'key':'value'} x", "{'key':'value',}",
              "{'key':{'a':'b'},'key':'value'}"}) // parsing this one would lose memory
            QTest::newRow(text) << "";
    }

    void valueOfAKeyIsRead()
    {
        QFETCH(QString, value);
        QCOMPARE(m_manager->getJsonValue("key", json(QTest::currentDataTag())), value);
    }

    void answerHasTheKeysOfItsType_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("openvpn") << json(
            "{'arg':'\u0416','cmd':'\u0416','status':false,'type':'openvpn'}");
        for (const char *type : {"connect", "disconnect"})
            QTest::newRow(type) << json("{'cmd':'\u0416','status':false,'type':'%1'}").arg(type);
        QTest::newRow("OpenVPN") << "{}";
        QTest::newRow("") << "{}";
    }

    void answerHasTheKeysOfItsType()
    {
        QFETCH(QString, text);
        m_manager->parseVpnCmd(kDisconnect, {}); // whose status is true, and false again after it
        const LogCapture log;
        m_manager->sendCmd(QTest::currentDataTag(), "\u0416", {42, false, "a text %1"});
        QCOMPARE(m_answers, (QStringList{kDisconnectAnswer, text}));
        QCOMPARE(log.lines(),
                 QStringList{"Send command service \"" + QString(text).replace('"', "\\\"") + '"'});
        QCOMPARE(m_results.last().code, 42);
        QCOMPARE(m_results.last().success, false);
        QCOMPARE(m_results.last().message, QString("a text %1"));
    }

    void onlyThreeCommandsHaveAnEffect_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QStringList>("log");
        const auto row = [](const char *message, const char *call, const QString &type,
                            const QStringList &commandLog = {}) {
            QTest::newRow(message)
                << call << (QStringList{"Command status  \"" + type + '"'} + commandLog);
        };
        row("{'type':'openvpn','cmd':'disconnect'}", "disconnect", "openvpn",
            {"result params  \"disconnect\""});
        row("{'type':'connect','cmd':'ovpnUdp'}", "udp hostkey", "connect",
            {"Connect cmd \"ovpnUdp\""});
        row("{ 'cmd' : 'ovpnTcp',\n 'arg':'x', 'type' : 'connect' }", "tcp hostkey", "connect",
            {"Connect cmd \"ovpnTcp\""});
        row("{'type':'openvpn','cmd':'connect'}", "", "openvpn", {"result params  \"connect\""});
        row("{'type':'openvpn','cmd':'ovpnUdp'}", "", "openvpn", {"result params  \"ovpnUdp\""});
        row("{'type':'connect','cmd':'disconnect'}", "", "connect", {"Connect cmd \"disconnect\""});
        row("{'type':'connect','cmd':'OVPNUDP'}", "", "connect", {"Connect cmd \"OVPNUDP\""});
        row("{'type':'connect','cmd':'OVPNTCP'}", "", "connect", {"Connect cmd \"OVPNTCP\""});
        row("{'type':'openvpn','cmd':'Disconnect'}", "", "openvpn",
            {"result params  \"Disconnect\""});
        row("{'type':'Connect','cmd':'ovpnUdp'}", "", "Connect");
        row("{'type':'connect','cmd':7}", "", "connect", {"Connect cmd \"\""});
        row("{'type':'connect'}", "", "connect", {"Connect cmd \"\""});
        row("{'type':'OpenVPN','cmd':'disconnect'}", "", "OpenVPN");
        row("{'type':'disconnect','cmd':'disconnect'}", "", "disconnect");
        row("[{'type':'connect','cmd':'ovpnUdp'}]", "", "");
        row("connect", "", "");
    }

    /// From a client, a command is logged when it arrives and executed from the event loop.
    void onlyThreeCommandsHaveAnEffect()
    {
        QFETCH(QString, call);
        QFETCH(QStringList, log);
        const LogCapture capture;
        m_connection->result = {3, false, "warning.x"};
        QString message = json(QTest::currentDataTag());
        VpnServerInformation record = server();
        m_manager->vpn_command(message, record);
        message = kDisconnect; // the next packet overwrites both where they are
        record = {};
        QCOMPARE(capture.lines(), log);
        QCOMPARE(m_connection->calls, QStringList());
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
        const QStringList calls = call.isEmpty() ? QStringList() : QStringList{call};
        QCOMPARE(m_connection->calls, calls);
        QCOMPARE(m_answers.size(), calls.size());
        if (!call.isEmpty()) {
            QCOMPARE(m_answers,
                     QStringList{call == "disconnect" ? kDisconnectAnswer : kConnectAnswer});
            QCOMPARE(m_results.last().code, 3);
            QCOMPARE(m_results.last().success, false);
            QCOMPARE(m_results.last().message, QString("warning.x"));
        }
    }

    void newerCommandEndsAConnectThatRuns()
    {
        m_connection->onCall = [this] {
            if (m_connection->calls.size() > 1)
                return;
            m_manager->vpn_command(kDisconnect, {});
            QTRY_COMPARE(m_connection->calls.size(), 2);
        };
        m_manager->vpn_command(kConnectUdp, server());
        QTRY_COMPARE(m_answers, (QStringList{kConnectAnswer, kDisconnectAnswer}));
        QCOMPARE(m_connection->calls, (QStringList{"udp hostkey", "disconnect", "disconnect"}));
    }

    void directCallInsideACommandNests()
    {
        m_connection->onCall = [this] {
            if (m_connection->calls.size() == 1)
                m_manager->parseVpnCmd(kDisconnect, {});
        };
        m_manager->parseVpnCmd(kConnectUdp, server());
        QCOMPARE(m_answers, (QStringList{kDisconnectAnswer, kConnectAnswer}));
    }

    void everyHeartbeatStartsThirtySecondsAnew()
    {
        const LogCapture log;
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
        QCOMPARE(log.lines().filter("Replica"),
                 (QStringList{"Replica state is  true", "Replica state is  false"}));
    }

    void silenceAfterAHeartbeatDisconnectsOnce()
    {
        const LogCapture log;
        use(50ms);
        // A heartbeat that comes during the disconnect does not count.
        m_connection->onCall = [this] { m_manager->server_slot(true); };
        for (int i = 1; i <= 2; ++i) { // a heartbeat after a time-out begins the watch anew
            QElapsedTimer silence;
            silence.start();
            m_manager->server_slot(true);
            QTRY_COMPARE(m_connection->calls.size(), i);
            QVERIFY(silence.elapsed() >= 49);
            QCOMPARE(log.count("Client was disconnected"), i);
            QVERIFY(!watch()->isActive());
        }
        QCOMPARE(m_answers, QStringList());
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
        m_connection->result = OperationResult::failed("x");
        QTRY_COMPARE(m_answers,
                     (QStringList{kConnectAnswer, kDisconnectAnswer, kDisconnectAnswer}));
        QCOMPARE(m_results[0].message, QString("warning.can_not_open_vpn_check_is_admin_granted"));
        QCOMPARE(m_results[1].message, QString());
        QCOMPARE(m_results[2].message, QString("x"));
        QTest::qWait(10);
        QCOMPARE(m_connection->calls, (QStringList{"disconnect", "disconnect"}));
    }

    /// With its real connection, and the stand-in for openvpn.
    void managerThatGoesDisconnectsNothing()
    {
        lab::resetPrivateRoot();
        const LogCapture log;
        QObject parent;
        for (const char *played : {"succeed", "echo ERROR; exit"}) { // by itself
            auto *manager =
                new ServiceInterfaceManager(QSharedPointer<CommandTotals>::create(), 501, &parent);
            QCOMPARE(manager->parent(), &parent);
            manager->parseVpnCmd(kConnectUdp, standins::serverThatPlays(played));
            QTRY_COMPARE(standins::runningOpenvpns(), 1);
            delete manager;
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            QCOMPARE(standins::runningOpenvpns(), 1);
            QCOMPARE(log.count("result output  true"), 0);
        }
    }
};

QTEST_GUILESS_MAIN(ServiceInterfaceManagerTest)
#include "tst_serviceinterfacemanager.moc"
