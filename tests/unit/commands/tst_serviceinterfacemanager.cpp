#include "serviceinterfacemanager.h"

#include "logcapture.h"
#include "eventwait.h"
#include "iovpnconnection.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QScopeGuard>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <algorithm>
#include <functional>

using namespace std::chrono_literals;

namespace {

const QString kConnectUdp = QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}");
const QString kConnectTcp = QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnTcp\"}");
const QString kDisconnect = QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"disconnect\"}");

const QString kConnectAnswer = QStringLiteral(
    "{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":\"openvpn\"}");
const QString kDisconnectAnswer = QStringLiteral(
    "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,\"type\":\"openvpn\"}");

const QString kOvertaken = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kHeartbeatTrue = QStringLiteral("Replica state is  true");
const QString kClientGone = QStringLiteral("Client was disconnected");

constexpr qint64 kLatenessMs = 1'000;

VpnServerInformation serverOf(const QString &host)
{
    VpnServerInformation server;
    server.name = QStringLiteral("name");
    server.id = 5;
    server.info = QStringLiteral("info");
    server.host = host;
    server.ca = QStringLiteral("ca");
    server.key = QStringLiteral("key");
    server.cert = QStringLiteral("cert");
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

QStringList fieldsOf(const VpnServerInformation &server)
{
    return {server.name,
            QString::number(server.id),
            server.info,
            server.host,
            server.ca,
            server.key,
            server.cert,
            QString::number(server.udpPort),
            QString::number(server.tcpPort)};
}

/// Notes its calls, and answers what it is told to.
class FakeConnection : public vpncore::IOvpnConnection
{
public:
    explicit FakeConnection(bool *isDestroyed = nullptr)
        : m_isDestroyed(isDestroyed)
    {
    }

    ~FakeConnection() override
    {
        if (m_isDestroyed)
            *m_isDestroyed = true;
    }

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
        ++disconnects;
        if (onDisconnect)
            onDisconnect();
        return disconnectResult;
    }

    /// @return true while a connect waits to be disconnected.
    bool isWaiting() const { return m_depth > 0; }

    QStringList calls;
    QVector<VpnServerInformation> servers;
    OperationResult connectResult;
    OperationResult disconnectResult;
    std::function<void()> onConnect;
    std::function<void()> onDisconnect;
    int disconnects = 0;
    /// How many of the next connects wait until disconnect() is called, as the real ones do.
    int waitingConnects = 0;
    int deepest = 0;

private:
    OperationResult connect(const QString &call, const VpnServerInformation &server)
    {
        calls.append(call);
        servers.append(server);
        ++m_depth;
        deepest = std::max(deepest, m_depth);
        if (onConnect)
            onConnect();
        OperationResult result = connectResult;
        if (waitingConnects > 0) {
            --waitingConnects;
            const int before = disconnects;
            vpncore::waitUntil(QDeadlineTimer(50s),
                               [this, before] { return disconnects != before; });
            result = OperationResult::failed(QStringLiteral("gave up"));
        }
        --m_depth;
        return result;
    }

    bool *m_isDestroyed;
    int m_depth = 0;
};

struct Answer
{
    QString text;
    OperationResult result;
};

} // namespace

/// What the commands of a client do, against a connection that only notes its calls.
class CommandDispatcher : public QObject
{
    Q_OBJECT

private:
    /// Turns the event loop until there are @p count answers.
    bool waitForAnswers(int count)
    {
        return vpncore::waitUntil(QDeadlineTimer(20s),
                                  [this, count] { return m_answers.size() >= count; });
    }

    /// Turns the event loop until nothing that is posted is left.
    static void settle()
    {
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
    }

    /// Sends a connect that will wait until disconnect() is called.
    void startWaitingConnect()
    {
        m_connection->waitingConnects = 1;
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("first")));
    }

    QStringList answerTexts() const
    {
        QStringList texts;
        for (const Answer &answer : m_answers)
            texts.append(answer.text);
        return texts;
    }

    QStringList answerMessages() const
    {
        QStringList messages;
        for (const Answer &answer : m_answers)
            messages.append(answer.result.message);
        return messages;
    }

    QScopedPointer<FakeConnection> m_connection;
    QScopedPointer<ServiceInterfaceManager> m_manager;
    QVector<Answer> m_answers;

private Q_SLOTS:
    void init()
    {
        m_answers.clear();
        m_connection.reset(new FakeConnection);
        m_manager.reset(new ServiceInterfaceManager(m_connection.data(), nullptr));
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this,
                [this](const QString &text, const OperationResult &result) {
                    m_answers.append({text, result});
                });
    }

    void cleanup()
    {
        m_manager.reset();
        m_connection.reset();
    }

    // --- Construction and destruction
    // -------------------------------------------------------------

    void constructionLogsThatTheSourceHasStarted()
    {
        const LogCapture log;
        const ServiceInterfaceManager manager(m_connection.data(), nullptr);
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("Source Node Started")});
        QCOMPARE(log.lines().size(), 1);
    }

    void constructionCallsNothing()
    {
        settle();
        QCOMPARE(m_connection->calls, QStringList());
    }

    void parentOwnsTheManager()
    {
        QPointer<ServiceInterfaceManager> manager;
        {
            QObject parent;
            manager = new ServiceInterfaceManager(m_connection.data(), &parent);
            QCOMPARE(manager->parent(), &parent);
        }
        QVERIFY(manager.isNull());
    }

    void managerMakesAConnectionOfItsOwn()
    {
        ServiceInterfaceManager manager(nullptr);
        QString text;
        OperationResult result = OperationResult::failed(QString());
        connect(&manager, &ServiceInterfaceManager::vpn_cmd_result, this,
                [&text, &result](const QString &answer, const OperationResult &outcome) {
                    text = answer;
                    result = outcome;
                });
        manager.parseVpnCmd(kDisconnect, {});
        QCOMPARE(text, kDisconnectAnswer);
        QVERIFY(result.success);
    }

    void destructionLeavesTheConnectionAlone()
    {
        bool isDestroyed = false;
        auto *connection = new FakeConnection(&isDestroyed);
        delete new ServiceInterfaceManager(connection, nullptr);
        settle();
        QVERIFY(!isDestroyed);
        QCOMPARE(connection->calls, QStringList());
        delete connection;
    }

    void destructionLeavesATunnelThatIsUpAlone()
    {
        m_manager->parseVpnCmd(kConnectUdp, serverOf(QStringLiteral("host")));
        m_manager->server_slot(true);
        m_manager.reset();
        settle();
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
    }

    void destructionDropsCommandsThatHaveNotBegun()
    {
        m_manager->vpn_command(kDisconnect, {});
        m_manager.reset();
        settle();
        QCOMPARE(m_connection->calls, QStringList());
    }

    // --- getJsonValue
    // -------------------------------------------------------------------------------

    void valueOfAKeyIsRead_data()
    {
        QTest::addColumn<QString>("json");
        QTest::addColumn<QString>("value");
        const auto row = [](const char *name, const char *json, const char *value) {
            QTest::newRow(name) << QString::fromUtf8(json) << QString::fromUtf8(value);
        };
        row("string", "{\"key\":\"value\"}", "value");
        row("white space around", " {\r\n\t\"key\" : \"value\" } \n", "value");
        row("empty string", "{\"key\":\"\"}", "");
        row("text beyond ASCII", "{\"key\":\"\u0416\u20ac\"}", "\u0416\u20ac");
        row("escapes", "{\"key\":\"a\\\"\\\\\\u0041\\n\"}", "a\"\\A\n");
        row("escaped key", "{\"\\u006bey\":\"value\"}", "value");
        row("among other keys", "{\"a\":\"b\",\"key\":\"value\",\"c\":{}}", "value");
        row("the last of two", "{\"key\":\"first\",\"key\":\"second\"}", "second");
        // With these, Qt's parser would lose memory, which the leak sanitizer sees.
        row("object whose key comes again", "{\"key\":{\"a\":\"b\"},\"key\":\"value\"}", "");
        row("list whose key comes again", "{\"key\":\"value\",\"a\":[1],\"a\":2}", "");
        row("the same deeper down", "{\"key\":\"value\",\"c\":[{\"a\":{},\"a\":{}}]}", "");
        row("the same with an escape", "{\"key\":{\"a\":\"b\"},\"\\u006bey\":\"value\"}", "");
        row("the same, cut short", "{\"c\":{\"a\":[\"b\"],\"a\":[]},\"key\":\"value\"", "");
        row("the key of another object again", "{\"a\":{\"key\":\"b\"},\"key\":\"value\"}",
            "value");
        row("a value that is a key too", "{\"a\":{},\"key\":\"a\"}", "a");
        row("a list of equal texts", "{\"a\":[\"b\",\"b\",\"b\"],\"key\":\"value\"}", "value");
        row("escapes beside an object", "{\"a\":{},\"b\":\"\\\"{\",\"key\":\"va\\u006cue\"}",
            "value");
        row("number", "{\"key\":7}", "");
        row("true", "{\"key\":true}", "");
        row("null", "{\"key\":null}", "");
        row("array", "{\"key\":[\"value\"]}", "");
        row("object", "{\"key\":{\"key\":\"value\"}}", "");
        row("other case", "{\"Key\":\"value\"}", "");
        row("missing key", "{\"a\":\"key\"}", "");
        row("key deeper down", "{\"a\":{\"key\":\"value\"}}", "");
        row("empty object", "{}", "");
        row("array at the top", "[\"key\",\"value\"]", "");
        row("array of objects at the top", "[{\"key\":\"value\"}]", "");
        row("string at the top", "\"key\"", "");
        row("empty text", "", "");
        row("no JSON", "key=value", "");
        row("cut short", "{\"key\":\"value\"", "");
        row("text after the object", "{\"key\":\"value\"} x", "");
        row("two objects", "{\"key\":\"value\"}{\"key\":\"value\"}", "");
        row("comma at the end", "{\"key\":\"value\",}", "");
        row("single quotes", "{'key':'value'}", "");
    }

    void valueOfAKeyIsRead()
    {
        QFETCH(QString, json);
        QFETCH(QString, value);
        QCOMPARE(m_manager->getJsonValue(QStringLiteral("key"), json), value);
    }

    void keyMayBeAnyText()
    {
        QCOMPARE(m_manager->getJsonValue(QString(), QStringLiteral("{\"\":\"value\"}")),
                 QStringLiteral("value"));
        QCOMPARE(m_manager->getJsonValue(QStringLiteral("\u0416"),
                                         QStringLiteral("{\"\u0416\":\"value\"}")),
                 QStringLiteral("value"));
    }

    void deeplyNestedTextIsNoJson()
    {
        const QString deep = QStringLiteral("{\"a\":") + QString(100'000, QLatin1Char('['))
            + QString(100'000, QLatin1Char(']')) + QStringLiteral(",\"key\":\"value\"}");
        QCOMPARE(m_manager->getJsonValue(QStringLiteral("key"), deep), QString());
    }

    // --- sendCmd
    // ------------------------------------------------------------------------------------

    void answerHasTheKeysOfItsType_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("cmd");
        QTest::addColumn<QString>("text");
        const auto row = [](const char *type, const char *cmd, const char *text) {
            QTest::addRow("%s, %s", type, cmd)
                << QString::fromLatin1(type) << QString::fromLatin1(cmd)
                << QString::fromLatin1(text);
        };
        // Not handled by a command, so the status is false.
        row("openvpn", "connect",
            "{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":false,\"type\":\"openvpn\"}");
        row("openvpn", "anything",
            "{\"arg\":\"anything\",\"cmd\":\"anything\",\"status\":false,\"type\":\"openvpn\"}");
        row("openvpn", "", "{\"arg\":\"\",\"cmd\":\"\",\"status\":false,\"type\":\"openvpn\"}");
        row("connect", "ovpnUdp", "{\"cmd\":\"ovpnUdp\",\"status\":false,\"type\":\"connect\"}");
        row("disconnect", "x", "{\"cmd\":\"x\",\"status\":false,\"type\":\"disconnect\"}");
        row("OpenVPN", "connect", "{}");
        row("Connect", "connect", "{}");
        row("", "connect", "{}");
        row("other", "connect", "{}");
    }

    void answerHasTheKeysOfItsType()
    {
        QFETCH(QString, type);
        QFETCH(QString, cmd);
        QFETCH(QString, text);
        m_manager->sendCmd(type, cmd, OperationResult());
        QCOMPARE(answerTexts(), QStringList{text});
    }

    void answerIsLoggedBeforeItIsSent()
    {
        const LogCapture log;
        QStringList loggedWhenSent;
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this,
                [&log, &loggedWhenSent] { loggedWhenSent = log.lines(); });
        m_manager->sendCmd(QStringLiteral("connect"), QStringLiteral("x"), OperationResult());
        QCOMPARE(
            loggedWhenSent,
            QStringList{QStringLiteral("Send command service \"{\\\"cmd\\\":\\\"x\\\","
                                       "\\\"status\\\":false,\\\"type\\\":\\\"connect\\\"}\"")});
        QCOMPARE(log.lines(QtDebugMsg), loggedWhenSent);
    }

    void answerTextIsUtf8()
    {
        m_manager->sendCmd(QStringLiteral("connect"), QStringLiteral("\u0416\"\n"),
                           OperationResult());
        QCOMPARE(answerTexts().value(0),
                 QStringLiteral("{\"cmd\":\"\u0416\\\"\\n\",\"status\":false,"
                                "\"type\":\"connect\"}"));
    }

    void answerCarriesTheRecordUnchanged()
    {
        m_manager->sendCmd(QStringLiteral("other"), QString(),
                           OperationResult{42, false, QStringLiteral("a text %1")});
        QCOMPARE(m_answers.size(), 1);
        QCOMPARE(m_answers.first().result.code, 42);
        QCOMPARE(m_answers.first().result.success, false);
        QCOMPARE(m_answers.first().result.message, QStringLiteral("a text %1"));
    }

    void statusIsFalseAgainAfterACommand()
    {
        m_manager->parseVpnCmd(kDisconnect, {});
        m_manager->sendCmd(QStringLiteral("disconnect"), QStringLiteral("x"), OperationResult());
        QCOMPARE(answerTexts(),
                 (QStringList{
                     kDisconnectAnswer,
                     QStringLiteral("{\"cmd\":\"x\",\"status\":false,\"type\":\"disconnect\"}")}));
    }

    // --- parseVpnCmd
    // --------------------------------------------------------------------------------

    void commandCallsItsOperationOnceAndIsAnswered_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("call");
        QTest::addColumn<QString>("answer");
        QTest::newRow("disconnect")
            << kDisconnect << QStringLiteral("disconnect") << kDisconnectAnswer;
        QTest::newRow("connect over UDP")
            << kConnectUdp << QStringLiteral("udp host") << kConnectAnswer;
        QTest::newRow("connect over TCP")
            << kConnectTcp << QStringLiteral("tcp host") << kConnectAnswer;
        QTest::newRow("keys in other order, with blanks")
            << QStringLiteral("{ \"cmd\" : \"ovpnTcp\",\n \"type\" : \"connect\" }")
            << QStringLiteral("tcp host") << kConnectAnswer;
        QTest::newRow("further keys")
            << QStringLiteral("{\"arg\":\"x\",\"type\":\"openvpn\",\"status\":7,\"cmd\":"
                              "\"disconnect\",\"TYPE\":\"connect\"}")
            << QStringLiteral("disconnect") << kDisconnectAnswer;
        QTest::newRow("the last of two keys")
            << QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnTcp\",\"cmd\":\"ovpnUdp\"}")
            << QStringLiteral("udp host") << kConnectAnswer;
    }

    void commandCallsItsOperationOnceAndIsAnswered()
    {
        QFETCH(QString, message);
        QFETCH(QString, call);
        QFETCH(QString, answer);
        m_manager->parseVpnCmd(message, serverOf(QStringLiteral("host")));
        QCOMPARE(m_connection->calls, QStringList{call});
        QCOMPARE(answerTexts(), QStringList{answer});
    }

    void textThatIsNoCommandDoesNothing_data()
    {
        QTest::addColumn<QString>("message");
        const auto row = [](const char *message) {
            QTest::newRow(message) << QString::fromLatin1(message);
        };
        row("{\"type\":\"openvpn\",\"cmd\":\"connect\"}");
        row("{\"type\":\"openvpn\",\"cmd\":\"ovpnUdp\"}");
        row("{\"type\":\"connect\",\"cmd\":\"disconnect\"}");
        row("{\"type\":\"disconnect\",\"cmd\":\"disconnect\"}");
        row("{\"type\":\"connect\",\"cmd\":\"OVPNUDP\"}");
        row("{\"type\":\"connect\",\"cmd\":\"ovpnudp\"}");
        row("{\"type\":\"connect\",\"cmd\":\"ovpnUdp \"}");
        row("{\"type\":\"OpenVPN\",\"cmd\":\"disconnect\"}");
        row("{\"type\":\"openvpn\",\"cmd\":\"Disconnect\"}");
        row("{\"type\":\"Connect\",\"cmd\":\"ovpnUdp\"}");
        row("{\"Type\":\"connect\",\"Cmd\":\"ovpnUdp\"}");
        row("{\"type\":\"connect\",\"cmd\":7}");
        row("{\"type\":1,\"cmd\":\"ovpnUdp\"}");
        row("{\"type\":[\"connect\"],\"cmd\":\"ovpnUdp\"}");
        row("{\"type\":\"connect\",\"cmd\":null}");
        row("{\"type\":\"connect\"}");
        row("{\"cmd\":\"ovpnUdp\"}");
        row("{\"type\":\"\",\"cmd\":\"\"}");
        row("[{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}]");
        row("{\"a\":{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}}");
        row("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"");
        row("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"},");
        row("connect");
        row("{}");
        row("");
    }

    void textThatIsNoCommandDoesNothing()
    {
        QFETCH(QString, message);
        m_manager->parseVpnCmd(message, serverOf(QStringLiteral("host")));
        m_manager->vpn_command(message, serverOf(QStringLiteral("host")));
        settle();
        QCOMPARE(m_connection->calls, QStringList());
        QVERIFY(m_answers.isEmpty());
    }

    void connectGetsTheRecordReceived()
    {
        const VpnServerInformation server = serverOf(QStringLiteral("host"));
        m_manager->parseVpnCmd(kConnectUdp, server);
        m_manager->parseVpnCmd(kConnectTcp, server);
        QCOMPARE(m_connection->servers.size(), 2);
        QCOMPARE(fieldsOf(m_connection->servers.at(0)), fieldsOf(server));
        QCOMPARE(fieldsOf(m_connection->servers.at(1)), fieldsOf(server));
    }

    void outcomeOfTheOperationIsPassedOn_data()
    {
        QTest::addColumn<QString>("message");
        QTest::newRow("disconnect") << kDisconnect;
        QTest::newRow("connect over UDP") << kConnectUdp;
        QTest::newRow("connect over TCP") << kConnectTcp;
    }

    void outcomeOfTheOperationIsPassedOn()
    {
        QFETCH(QString, message);
        const OperationResult failure{3, false, QStringLiteral("warning.x")};
        m_connection->connectResult = failure;
        m_connection->disconnectResult = failure;
        m_manager->parseVpnCmd(message, {});
        QCOMPARE(m_answers.size(), 1);
        QCOMPARE(m_answers.first().result.code, 3);
        QCOMPARE(m_answers.first().result.success, false);
        QCOMPARE(m_answers.first().result.message, QStringLiteral("warning.x"));
        QVERIFY(m_answers.first().text.contains(QStringLiteral("\"status\":true")));
    }

    void answerComesAfterTheOperation()
    {
        int answersDuringTheOperation = -1;
        m_connection->onConnect = [this, &answersDuringTheOperation] {
            answersDuringTheOperation = m_answers.size();
        };
        m_manager->parseVpnCmd(kConnectUdp, {});
        QCOMPARE(answersDuringTheOperation, 0);
        QCOMPARE(m_answers.size(), 1);
    }

    void commandIsLogged_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QStringList>("lines");
        const QString connected =
            QStringLiteral("Send command service \"{\\\"arg\\\":\\\"connect\\\",\\\"cmd\\\":"
                           "\\\"connect\\\",\\\"status\\\":true,\\\"type\\\":\\\"openvpn\\\"}\"");
        const QString disconnected = QStringLiteral(
            "Send command service \"{\\\"arg\\\":\\\"disconnect\\\",\\\"cmd\\\":"
            "\\\"disconnect\\\",\\\"status\\\":true,\\\"type\\\":\\\"openvpn\\\"}\"");
        const QString connectType = QStringLiteral("Command status  \"connect\"");
        const QString openvpnType = QStringLiteral("Command status  \"openvpn\"");
        const QString noType = QStringLiteral("Command status  \"\"");
        QTest::newRow("disconnect")
            << kDisconnect
            << QStringList{openvpnType, QStringLiteral("result params  \"disconnect\""),
                           disconnected};
        QTest::newRow("connect over UDP")
            << kConnectUdp
            << QStringList{connectType, QStringLiteral("Connect cmd \"ovpnUdp\""), connected};
        QTest::newRow("connect over TCP")
            << kConnectTcp
            << QStringList{connectType, QStringLiteral("Connect cmd \"ovpnTcp\""), connected};
        QTest::newRow("unknown command of openvpn")
            << QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"connect\"}")
            << QStringList{openvpnType, QStringLiteral("result params  \"connect\"")};
        QTest::newRow("unknown command of connect")
            << QStringLiteral("{\"type\":\"connect\",\"cmd\":7}")
            << QStringList{connectType, QStringLiteral("Connect cmd \"\"")};
        QTest::newRow("unknown type")
            << QStringLiteral("{\"type\":\"a \\\"b\\\"\",\"cmd\":\"disconnect\"}")
            << QStringList{QStringLiteral("Command status  \"a \\\"b\\\"\"")};
        QTest::newRow("no JSON") << QStringLiteral("connect") << QStringList{noType};
        QTest::newRow("empty text") << QString() << QStringList{noType};
    }

    void commandIsLogged()
    {
        QFETCH(QString, message);
        QFETCH(QStringList, lines);
        LogCapture log;
        m_manager->parseVpnCmd(message, {});
        QCOMPARE(log.lines(), lines);
        QCOMPARE(log.lines(QtDebugMsg), lines);
        log.clear();
        m_manager->vpn_command(message, {});
        settle();
        QCOMPARE(log.lines(), lines);
    }

    // --- vpn_command
    // ----------------------------------------------------------------------------------

    void callReturnsBeforeTheCommandRuns()
    {
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("host")));
        QCOMPARE(m_connection->calls, QStringList());
        QVERIFY(m_answers.isEmpty());
        QVERIFY(waitForAnswers(1));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
        QCOMPARE(answerTexts(), QStringList{kConnectAnswer});
    }

    void argumentsAreCopied()
    {
        QString message = kConnectUdp;
        VpnServerInformation server = serverOf(QStringLiteral("host"));
        const QStringList expected = fieldsOf(server);
        m_manager->vpn_command(message, server);
        // The next packet overwrites both where they are.
        message = kDisconnect;
        server = serverOf(QStringLiteral("other"));
        server.name = server.info = server.ca = server.key = server.cert = QStringLiteral("other");
        server.id = server.udpPort = server.tcpPort = 0;
        QVERIFY(waitForAnswers(1));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
        QCOMPARE(fieldsOf(m_connection->servers.first()), expected);
    }

    void commandsSentOneByOneAllRun()
    {
        for (int i = 0; i < 3; ++i) {
            m_manager->vpn_command(kConnectTcp, serverOf(QString::number(i)));
            QVERIFY(waitForAnswers(i + 1));
        }
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("tcp 0"), QStringLiteral("tcp 1"),
                              QStringLiteral("tcp 2")}));
    }

    void answersComeInTheOrderOfTheCommands()
    {
        m_manager->vpn_command(kDisconnect, {});
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("a")));
        m_manager->vpn_command(kDisconnect, {});
        m_manager->vpn_command(kConnectTcp, serverOf(QStringLiteral("b")));
        QVERIFY(waitForAnswers(4));
        settle();
        QCOMPARE(
            answerTexts(),
            (QStringList{kDisconnectAnswer, kConnectAnswer, kDisconnectAnswer, kConnectAnswer}));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("disconnect"), QStringLiteral("disconnect"),
                              QStringLiteral("tcp b")}));
    }

    void connectOvertakenBeforeItBeganIsAnsweredAsAFailedAttempt()
    {
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("a")));
        m_manager->vpn_command(kConnectTcp, serverOf(QStringLiteral("b")));
        QVERIFY(waitForAnswers(2));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("tcp b")});
        QCOMPARE(answerTexts(), (QStringList{kConnectAnswer, kConnectAnswer}));
        QCOMPARE(m_answers.at(0).result.code, 1);
        QCOMPARE(m_answers.at(0).result.success, false);
        QCOMPARE(m_answers.at(0).result.message, kOvertaken);
        QVERIFY(m_answers.at(1).result.success);
    }

    void connectOvertakenByADisconnectDoesNotBegin()
    {
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("a")));
        m_manager->vpn_command(kDisconnect, {});
        QVERIFY(waitForAnswers(2));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("disconnect")});
        QCOMPARE(answerMessages(), (QStringList{kOvertaken, QString()}));
    }

    void textThatIsNoCommandOvertakesNothing()
    {
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("a")));
        m_manager->vpn_command(QStringLiteral("no command"), serverOf(QStringLiteral("b")));
        m_manager->vpn_command(QStringLiteral("{\"type\":\"openvpn\",\"cmd\":\"connect\"}"),
                               serverOf(QStringLiteral("c")));
        QVERIFY(waitForAnswers(1));
        settle();
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp a")});
        QCOMPARE(answerMessages(), QStringList{QString()});
    }

    // --- A newer command while a connect waits
    // --------------------------------------------------------

    void newerDisconnectEndsAWaitingConnect()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this, [this] { m_manager->vpn_command(kDisconnect, {}); });
        QElapsedTimer timer;
        timer.start();
        QVERIFY(waitForAnswers(2));
        QVERIFY(timer.elapsed() < kLatenessMs);
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect"),
                              QStringLiteral("disconnect")}));
        QCOMPARE(answerTexts(), (QStringList{kConnectAnswer, kDisconnectAnswer}));
        QCOMPARE(answerMessages(), (QStringList{QStringLiteral("gave up"), QString()}));
    }

    void newerConnectEndsAWaitingConnectAndRuns()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this, [this] {
            m_manager->vpn_command(kConnectTcp, serverOf(QStringLiteral("second")));
        });
        QVERIFY(waitForAnswers(2));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect"),
                              QStringLiteral("tcp second")}));
        QCOMPARE(answerMessages(), (QStringList{QStringLiteral("gave up"), QString()}));
        QCOMPARE(m_connection->deepest, 1);
    }

    void manyNewerCommandsAtOnceEndAWaitingConnectOnce()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this, [this] {
            for (int i = 0; i < 5; ++i)
                m_manager->vpn_command(kConnectTcp, serverOf(QString::number(i)));
        });
        QVERIFY(waitForAnswers(6));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect"),
                              QStringLiteral("tcp 4")}));
        QCOMPARE(answerMessages(),
                 (QStringList{QStringLiteral("gave up"), kOvertaken, kOvertaken, kOvertaken,
                              kOvertaken, QString()}));
    }

    /// A real connection turns the event loop while it stops its process.
    void newerCommandsDuringTheDisconnectAddNoFurtherOne()
    {
        startWaitingConnect();
        m_connection->onDisconnect = [this] {
            m_connection->onDisconnect = nullptr;
            for (int i = 1; i < 5; ++i) {
                QTimer::singleShot(i * 50, this, [this, i] {
                    m_manager->vpn_command(kConnectTcp, serverOf(QString::number(i)));
                });
            }
            vpncore::waitUntil(QDeadlineTimer(400));
        };
        QTimer::singleShot(100, this, [this] {
            m_manager->vpn_command(kConnectTcp, serverOf(QStringLiteral("0")));
        });
        QVERIFY(waitForAnswers(6));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect"),
                              QStringLiteral("tcp 4")}));
    }

    void newerCommandDuringADisconnectWaitsForItsEnd()
    {
        bool isStopping = false;
        bool connectedTooEarly = false;
        m_connection->onDisconnect = [this, &isStopping] {
            isStopping = true;
            QTimer::singleShot(50, this, [this] {
                m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("next")));
            });
            vpncore::waitUntil(QDeadlineTimer(300));
            isStopping = false;
        };
        m_connection->onConnect = [&isStopping, &connectedTooEarly] {
            connectedTooEarly = isStopping;
        };
        m_manager->vpn_command(kDisconnect, {});
        QVERIFY(waitForAnswers(2));
        QVERIFY(!connectedTooEarly);
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("disconnect"), QStringLiteral("udp next")}));
        QCOMPARE(answerTexts(), (QStringList{kDisconnectAnswer, kConnectAnswer}));
    }

    void textThatIsNoCommandLeavesAWaitingConnectAlone()
    {
        startWaitingConnect();
        bool stillWaiting = false;
        QTimer::singleShot(100, this,
                           [this] { m_manager->vpn_command(QStringLiteral("no command"), {}); });
        QTimer::singleShot(400, this, [this, &stillWaiting] {
            stillWaiting = m_connection->isWaiting() && m_connection->disconnects == 0;
            m_connection->disconnect();
        });
        QVERIFY(waitForAnswers(1));
        QVERIFY(stillWaiting);
        settle();
        QCOMPARE(m_answers.size(), 1);
    }

    void heartbeatLeavesAWaitingConnectAlone()
    {
        startWaitingConnect();
        bool stillWaiting = false;
        QTimer::singleShot(100, this, [this] { m_manager->server_slot(true); });
        QTimer::singleShot(400, this, [this, &stillWaiting] {
            stillWaiting = m_connection->isWaiting() && m_connection->disconnects == 0;
            m_connection->disconnect();
        });
        QVERIFY(waitForAnswers(1));
        QVERIFY(stillWaiting);
    }

    void commandAfterAnOvertakenConnectFindsNothingLeftOver()
    {
        startWaitingConnect();
        QTimer::singleShot(50, this, [this] { m_manager->vpn_command(kDisconnect, {}); });
        QVERIFY(waitForAnswers(2));
        m_connection->calls.clear();
        m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("later")));
        QVERIFY(waitForAnswers(3));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp later")});
        QVERIFY(m_answers.last().result.success);
    }

    void directCallWhileAConnectWaitsNests()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this, [this] { m_manager->parseVpnCmd(kDisconnect, {}); });
        QVERIFY(waitForAnswers(2));
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect")}));
        // The inner command is done first, and the outer answer says "status" true all the same.
        QCOMPARE(answerTexts(), (QStringList{kDisconnectAnswer, kConnectAnswer}));
    }

    void directConnectWhileAConnectWaitsNests()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this, [this] {
            m_manager->parseVpnCmd(kConnectTcp, serverOf(QStringLiteral("inner")));
            m_connection->disconnect();
        });
        QVERIFY(waitForAnswers(2));
        QCOMPARE(m_connection->deepest, 2);
        QCOMPARE(answerTexts(), (QStringList{kConnectAnswer, kConnectAnswer}));
        QCOMPARE(answerMessages(), (QStringList{QString(), QStringLiteral("gave up")}));
    }

    void timeOutWhileAConnectWaitsEndsIt()
    {
        startWaitingConnect();
        QTimer::singleShot(100, this,
                           [this] { QMetaObject::invokeMethod(m_manager.data(), "timeout_slot"); });
        QVERIFY(waitForAnswers(1));
        settle();
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp first"), QStringLiteral("disconnect")}));
        QCOMPARE(answerMessages(), QStringList{QStringLiteral("gave up")});
    }

    // --- Many commands
    // --------------------------------------------------------------------------------

    void oldestOfTooManyWaitingCommandsAreAnsweredAtOnce()
    {
        constexpr int mostWaiting = 10'000;
        const auto formerHandler =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        const auto restoreHandler =
            qScopeGuard([formerHandler] { qInstallMessageHandler(formerHandler); });
        QStringList answeredAtOnce;
        m_connection->onDisconnect = [&] {
            m_connection->onDisconnect = nullptr;
            const int before = m_answers.size();
            m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("first")));
            m_manager->vpn_command(kDisconnect, {});
            for (int i = 0; i < mostWaiting; ++i)
                m_manager->vpn_command(kConnectTcp, serverOf(QString::number(i)));
            for (const Answer &answer : m_answers.mid(before))
                answeredAtOnce.append(answer.text + answer.result.message);
        };
        m_manager->vpn_command(kDisconnect, {});
        QVERIFY(waitForAnswers(mostWaiting + 3));
        QCOMPARE(answeredAtOnce, (QStringList{kConnectAnswer + kOvertaken, kDisconnectAnswer}));
        QCOMPARE(m_answers.at(2).text, kDisconnectAnswer); // the one that ran meanwhile
        QCOMPARE(m_answers.last().result.message, QString());
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("disconnect"),
                              QStringLiteral("tcp %1").arg(mostWaiting - 1)}));
    }

    void manyPipelinedCommandsAreAnsweredInOrder_data()
    {
        QTest::addColumn<bool>("whileAConnectWaits");
        QTest::newRow("at once") << false;
        QTest::newRow("while a connect waits") << true;
    }

    void manyPipelinedCommandsAreAnsweredInOrder()
    {
        QFETCH(bool, whileAConnectWaits);
        constexpr int count = 10'000;
        // The deepest stack is told by where local variables lie when the connection is called
        // and when an answer is given.
        quintptr lowest = UINTPTR_MAX;
        quintptr highest = 0;
        const auto noteStack = [&lowest, &highest] {
            const volatile char here = 0;
            const auto address = reinterpret_cast<quintptr>(&here);
            lowest = std::min(lowest, address);
            highest = std::max(highest, address);
        };
        m_connection->onConnect = noteStack;
        m_connection->onDisconnect = noteStack;
        connect(m_manager.data(), &ServiceInterfaceManager::vpn_cmd_result, this, noteStack);
        const auto formerHandler =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

        QStringList expected;
        const auto sendAll = [this, &expected] {
            for (int i = 0; i < count; ++i) {
                // No period of the pattern hides a swap of neighbours for long.
                const bool isDisconnect = i % 3 == 1 || i % 7 == 1;
                m_manager->vpn_command(isDisconnect ? kDisconnect : kConnectUdp,
                                       serverOf(QString::number(i)));
                expected.append(isDisconnect ? kDisconnectAnswer : kConnectAnswer);
            }
        };
        if (whileAConnectWaits) {
            startWaitingConnect();
            expected.append(kConnectAnswer);
            QTimer::singleShot(100, this, sendAll);
        } else {
            sendAll();
        }
        const bool complete = waitForAnswers(count + (whileAConnectWaits ? 1 : 0));
        settle();
        qInstallMessageHandler(formerHandler);

        QVERIFY(complete);
        QCOMPARE(answerTexts(), expected);
        QCOMPARE(m_connection->deepest, 1);
        QVERIFY2(highest - lowest < 64 * 1024, qPrintable(QString::number(highest - lowest)));
        // Of all those connects only the last one was not overtaken.
        QCOMPARE(m_connection->servers.size(), whileAConnectWaits ? 2 : 1);
        QCOMPARE(m_connection->calls.last(), QStringLiteral("udp %1").arg(count - 1));
    }

    // --- Heartbeat
    // ------------------------------------------------------------------------------------

    void heartbeatIsLogged_data()
    {
        QTest::addColumn<bool>("state");
        QTest::addColumn<QString>("line");
        QTest::newRow("true") << true << kHeartbeatTrue;
        QTest::newRow("false") << false << QStringLiteral("Replica state is  false");
    }

    void heartbeatIsLogged()
    {
        QFETCH(bool, state);
        QFETCH(QString, line);
        const LogCapture log;
        m_manager->server_slot(state);
        QCOMPARE(log.lines(), QStringList{line});
        QCOMPARE(log.lines(QtDebugMsg), QStringList{line});
    }

    void heartbeatCallsAndAnswersNothing()
    {
        m_manager->server_slot(true);
        m_manager->server_slot(false);
        settle();
        QCOMPARE(m_connection->calls, QStringList());
        QVERIFY(m_answers.isEmpty());
    }

    void timeOutIsLoggedBeforeItDisconnects()
    {
        const LogCapture log;
        QStringList loggedBefore;
        m_connection->onDisconnect = [&log, &loggedBefore] { loggedBefore = log.lines(); };
        QVERIFY(QMetaObject::invokeMethod(m_manager.data(), "timeout_slot"));
        QCOMPARE(loggedBefore, QStringList{kClientGone});
        QCOMPARE(log.lines(QtDebugMsg), QStringList{kClientGone});
        QCOMPARE(m_connection->disconnects, 1);
    }

    void silenceAfterAHeartbeatDisconnectsOnceAfterThirtySeconds()
    {
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        m_manager->server_slot(true);
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(40s),
                                   [this] { return m_connection->disconnects > 0; }));
        QVERIFY2(timer.elapsed() >= 30'000 && timer.elapsed() < 30'000 + kLatenessMs,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(m_connection->disconnects, 1);
        QCOMPARE(log.lines(), (QStringList{kHeartbeatTrue, kClientGone}));
        QVERIFY(m_answers.isEmpty());
    }

    void watchStaysIdleAfterATimeOut()
    {
        m_manager->server_slot(true);
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(40s),
                                   [this] { return m_connection->disconnects > 0; }));
        vpncore::waitUntil(QDeadlineTimer(31s));
        QCOMPARE(m_connection->disconnects, 1);
        QVERIFY(m_answers.isEmpty());
    }

    void heartbeatAfterATimeOutArmsTheWatchAgain()
    {
        m_manager->server_slot(true);
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(40s),
                                   [this] { return m_connection->disconnects > 0; }));
        QElapsedTimer timer;
        timer.start();
        m_manager->server_slot(true);
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(40s),
                                   [this] { return m_connection->disconnects > 1; }));
        QVERIFY(timer.elapsed() >= 30'000 && timer.elapsed() < 30'000 + kLatenessMs);
    }

    void heartbeatWithFalsePostponesTheTimeOut()
    {
        m_manager->server_slot(true);
        vpncore::waitUntil(QDeadlineTimer(29s));
        QCOMPARE(m_connection->disconnects, 0);
        QElapsedTimer timer;
        timer.start();
        m_manager->server_slot(false);
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(40s),
                                   [this] { return m_connection->disconnects > 0; }));
        QVERIFY2(timer.elapsed() >= 30'000 && timer.elapsed() < 30'000 + kLatenessMs,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(m_connection->disconnects, 1);
    }

    void clientWithoutAHeartbeatIsNotWatched()
    {
        m_manager->parseVpnCmd(kConnectUdp, serverOf(QStringLiteral("host")));
        vpncore::waitUntil(QDeadlineTimer(31s));
        QCOMPARE(m_connection->calls, QStringList{QStringLiteral("udp host")});
    }

    void commandsAreNoHeartbeat()
    {
        QElapsedTimer timer;
        timer.start();
        m_manager->server_slot(true);
        QTimer::singleShot(20s, this, [this] {
            m_manager->vpn_command(kConnectUdp, serverOf(QStringLiteral("host")));
        });
        QVERIFY(vpncore::waitUntil(QDeadlineTimer(60s),
                                   [this] { return m_connection->disconnects > 0; }));
        QVERIFY(timer.elapsed() >= 30'000 && timer.elapsed() < 30'000 + kLatenessMs);
        QCOMPARE(m_connection->calls,
                 (QStringList{QStringLiteral("udp host"), QStringLiteral("disconnect")}));
    }

    void destroyedManagerDoesNotTimeOut()
    {
        m_manager->server_slot(true);
        m_manager.reset();
        vpncore::waitUntil(QDeadlineTimer(31s));
        QCOMPARE(m_connection->calls, QStringList());
    }
};

QTEST_GUILESS_MAIN(CommandDispatcher)
#include "tst_serviceinterfacemanager.moc"
