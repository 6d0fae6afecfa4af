#include "connectcommand.h"
#include "ipcurls.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

using namespace std::chrono_literals;

/// Publishes a remote object on a socket of its own.
template<typename Source>
class Endpoint : public Source
{
public:
    explicit Endpoint(const QString &socketName)
    {
        // A host publishes nothing before it has a connection.
        QObject::connect(&m_server, &QLocalServer::newConnection, this, [this] {
            m_host.addHostSideConnection(m_server.nextPendingConnection());
            m_host.enableRemoting(static_cast<Source *>(this));
        });
        if (!m_server.listen(socketName))
            qFatal("cannot listen on %s", qPrintable(socketName));
    }

private:
    QLocalServer m_server;
    QRemoteObjectHost m_host;
};

/// The daemon as a client sees it; every command succeeds at once.
class MainSocket : public Endpoint<IpcInterfaceSource>
{
public:
    MainSocket()
        : Endpoint(shared::getIpcServiceUrl())
    {
    }

    int createPrivilegedProcess() override { return 1; }
};

class FirstEndpoint : public Endpoint<ServiceInterfaceSource>
{
public:
    FirstEndpoint()
        : Endpoint(shared::getIpcProcessUrl(1))
    {
    }

    int heartbeats = 0;
    QStringList commands;

    void server_slot(bool) override { ++heartbeats; }

    void vpn_command(const QString &message, const VpnServerInformation &) override
    {
        const bool isConnect = message.contains(QLatin1String("ovpnUdp"));
        commands.append(isConnect ? QStringLiteral("connect") : QStringLiteral("disconnect"));
        Q_EMIT vpn_cmd_result(QStringLiteral(R"({"cmd":"%1"})").arg(commands.constLast()),
                              OperationResult::succeeded());
    }
};

} // namespace

/// How a tunnel is held, with shorter limits than the program's.
class VpnctlConnectCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QFile pem(QStringLiteral("/var/root/all.pem"));
        QVERIFY(pem.open(QIODevice::WriteOnly));
        pem.write((pemtexts::certificate() + pemtexts::key()).toLatin1());
        m_options = {};
        m_options.command = Options::Command::Connect;
        m_options.host = QStringLiteral("a");
        m_options.caPath = m_options.certPath = m_options.keyPath = pem.fileName();
    }

    void limitsAreThoseOfTheManualPage()
    {
        QCOMPARE(m_options.answerLimit, 120s);
        QCOMPARE(m_options.limits.handshake, 15s);
        QCOMPARE(m_options.limits.heartbeatPeriod, 10s);
        QCOMPARE(m_options.limits.silence, 29s);
    }

    void daemonThatHangsGivesNoAnswer()
    {
        QLocalServer server;
        QVERIFY(server.listen(shared::getIpcServiceUrl()));
        m_options.limits.handshake = 500ms;
        begin();
        QTRY_COMPARE(m_finished, ExitCode::NoAnswer);
    }

    void daemonThatIsBusyForAWhileIsWaitedFor()
    {
        QLocalServer server; // in the place of a daemon that does something else
        QVERIFY(server.listen(shared::getIpcServiceUrl()));
        m_options.limits.handshake = 500ms;
        begin();
        QTest::qWait(200);
        QVERIFY(!m_finished);
        QRemoteObjectHost host;
        MainSocketObject object;
        host.addHostSideConnection(server.nextPendingConnection());
        host.enableRemoting(static_cast<IpcInterfaceSource *>(&object));
        QTRY_COMPARE(object.calls, 1);
    }

    void heldTunnelIsKeptAliveByHeartbeats()
    {
        const MainSocket mainSocket;
        const FirstEndpoint endpoint;
        m_options.limits.heartbeatPeriod = 50ms;
        m_options.answerLimit = 1s; // which the answer ends
        begin();
        QTRY_COMPARE(endpoint.commands, QStringList{QStringLiteral("connect")});
        QElapsedTimer timer;
        timer.start();
        QTRY_VERIFY(endpoint.heartbeats >= 25);
        QVERIFY(timer.elapsed() > 1'000);
        QVERIFY(!m_finished);
    }

    void detachedTunnelGetsNoHeartbeat()
    {
        const MainSocket mainSocket;
        const FirstEndpoint endpoint;
        m_options.detach = true;
        begin();
        QTRY_COMPARE(m_finished, ExitCode::Done);
        QCOMPARE(endpoint.heartbeats, 0);
    }

    void holderThatWasStoppedTellsWhetherItHasLostItsTunnel_data()
    {
        QTest::addColumn<int>("limitMs");
        QTest::addColumn<bool>("isLost");
        QTest::newRow("too long") << 500 << true;
        QTest::newRow("not so long") << 29'000 << false;
    }

    void holderThatWasStoppedTellsWhetherItHasLostItsTunnel()
    {
        QFETCH(int, limitMs);
        QFETCH(bool, isLost);
        const MainSocket mainSocket;
        const FirstEndpoint endpoint;
        m_options.limits.heartbeatPeriod = 50ms;
        m_options.limits.silence = std::chrono::milliseconds(limitMs);
        begin();
        QTRY_VERIFY(endpoint.heartbeats >= 2);
        QThread::msleep(550);
        const int before = endpoint.heartbeats;
        if (!isLost) {
            QTRY_VERIFY(endpoint.heartbeats >= before + 2);
            QVERIFY(!m_finished);
            return;
        }
        QTRY_COMPARE(m_finished, ExitCode::Failed);
        QCOMPARE(endpoint.heartbeats, before);
        QCOMPARE(endpoint.commands,
                 (QStringList{QStringLiteral("connect"), QStringLiteral("disconnect")}));
    }

    void cleanup()
    {
        m_command.reset();
        m_finished = std::nullopt;
    }

private:
    void begin()
    {
        m_command = Command::create(m_options, m_report);
        connect(m_command.get(), &Command::finished, this,
                [this](ExitCode exitCode) { m_finished = exitCode; });
        m_command->start();
    }

    /// createPrivilegedProcess() without a socket.
    class MainSocketObject : public IpcInterfaceSource
    {
    public:
        int calls = 0;
        int createPrivilegedProcess() override { return ++calls; }
    };

    Options m_options;
    Report m_report{Report::Form::Json};
    std::unique_ptr<Command> m_command;
    std::optional<ExitCode> m_finished;
};

QTEST_GUILESS_MAIN(VpnctlConnectCommand)
#include "tst_connectcommand.moc"
