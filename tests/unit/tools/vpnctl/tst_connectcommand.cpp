#include "command.h"
#include "files.h"
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

class MainSocket : public IpcInterfaceSource
{
public:
    MainSocket() { m_host.enableRemoting(this); }

    int createPrivilegedProcess() override { return 1; }

private:
    QRemoteObjectHost m_host{QUrl("local:" + shared::getIpcServiceUrl())};
};

/// The daemon as a client sees it, with one daemon.
class Daemon : public ServiceInterfaceSource
{
public:
    Daemon() { m_host.enableRemoting(this); }

    int heartbeats = 0;
    int failures = 0; ///< So many connects are answered with a failure.
    QStringList commands;
    QVector<qint64> times; ///< of the commands, in ms

    void server_slot(bool) override { ++heartbeats; }

    void vpn_command(const QString &message, const VpnServerInformation &) override
    {
        const bool isConnect = message.contains("ovpnUdp");
        commands.append(isConnect ? "connect" : "disconnect");
        times.append(QDeadlineTimer::current().deadline());
        Q_EMIT vpn_cmd_result(QString(R"({"cmd":"%1"})").arg(commands.constLast()),
                              isConnect && commands.size() > 1 && failures-- > 0
                                  ? OperationResult::failed("no luck")
                                  : OperationResult::succeeded());
    }

private:
    MainSocket m_mainSocket;
    QRemoteObjectHost m_host{QUrl("local:" + shared::getIpcProcessUrl(1))};
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
        const QString pem = "/var/root/all.pem";
        lab::writeFile(pem, (pemtexts::certificate() + pemtexts::key()).toLatin1());
        m_options = {};
        m_options.command = Options::Command::Connect;
        m_options.host = "a";
        m_options.caPath = m_options.certPath = m_options.keyPath = pem;
    }

    void limitsAreThoseOfTheManualPage()
    {
        QCOMPARE(m_options.answerLimit, 120s);
        QCOMPARE(m_options.limits.handshake, 15s);
        QCOMPARE(m_options.limits.heartbeatPeriod, 10s);
        QCOMPARE(m_options.limits.silence, 29s);
        QCOMPARE(m_options.limits.lookPeriod, 1s);
        QCOMPARE(m_options.limits.firstPause, 1s);
        QCOMPARE(m_options.limits.longestPause, 60s);
    }

    void daemonThatHangsGivesNoAnswer()
    {
        QLocalServer server;
        QVERIFY(server.listen(shared::getIpcServiceUrl()));
        m_options.limits.handshake = 500ms;
        begin();
        QTRY_COMPARE(m_finished, ExitCode::NoAnswer);
    }

    void onlyAHeldTunnelGetsHeartbeats()
    {
        for (const bool detach : {false, true}) {
            const Daemon daemon;
            m_options.limits.heartbeatPeriod = std::chrono::milliseconds(50);
            m_options.detach = detach;
            begin();
            QTRY_VERIFY(detach ? m_finished == ExitCode::Done : daemon.heartbeats >= 5);
            QCOMPARE(daemon.commands, QStringList{"connect"});
            QVERIFY(detach ? daemon.heartbeats == 0 : !m_finished);
            cleanup();
        }
    }

    void holderThatWasStoppedConnectsAgain_data()
    {
        QTest::addColumn<int>("silenceMs");
        QTest::addColumn<bool>("once");
        QTest::addColumn<QString>("commands");
        QTest::newRow("not for long") << 29'000 << false << "connect";
        QTest::newRow("too long") << 100 << false << "connect disconnect connect";
        QTest::newRow("too long, once") << 100 << true << "connect disconnect";
    }

    void holderThatWasStoppedConnectsAgain()
    {
        QFETCH(int, silenceMs);
        QFETCH(bool, once);
        QFETCH(QString, commands);
        const Daemon daemon;
        m_options.once = once;
        m_options.limits.silence = std::chrono::milliseconds(silenceMs);
        m_options.limits.firstPause = 20ms;
        holdAndStop(daemon);
        QTRY_COMPARE(daemon.commands.join(' '), commands);
        QTest::qWait(50);
        QCOMPARE(daemon.commands.join(' '), commands);
        QCOMPARE(m_finished.has_value(), once);
        QCOMPARE(m_finished.value_or(ExitCode::Failed), ExitCode::Failed);
    }

    void pausesGrow()
    {
        Daemon daemon;
        daemon.failures = 3;
        m_options.answerLimit = 1s; // which is over before the pauses are
        m_options.limits.silence = 100ms;
        m_options.limits.firstPause = 200ms;
        m_options.limits.longestPause = 400ms;
        holdAndStop(daemon);
        // For each attempt a disconnect, and after a pause the next connect.
        QTRY_COMPARE(daemon.commands.size(), 9);
        const auto &times = daemon.times;
        const auto pauseBefore = [&](int command) { return times[command] - times[command - 1]; };
        QVERIFY(pauseBefore(2) >= 190 && pauseBefore(4) >= 380 && pauseBefore(6) >= 380);
        QVERIFY(pauseBefore(8) >= 380 && pauseBefore(8) < 790);
        QThread::msleep(450); // of a tunnel that was up for longer, the first one is as short again
        QTRY_COMPARE(daemon.commands.size(), 11);
        QVERIFY(pauseBefore(10) < 380);
        QVERIFY(!m_finished);
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
                [this](int exitCode) { m_finished = exitCode; });
        m_command->start();
    }

    /// Begins, and when the tunnel is held stops this process, and so the command, for a while.
    void holdAndStop(const Daemon &daemon)
    {
        m_options.limits.heartbeatPeriod = m_options.limits.lookPeriod = 20ms;
        begin();
        QTRY_VERIFY(daemon.heartbeats >= 4);
        QThread::msleep(150);
    }

    Options m_options;
    Report m_report{Report::Form::Json};
    std::unique_ptr<Command> m_command;
    std::optional<int> m_finished;
};

QTEST_GUILESS_MAIN(VpnctlConnectCommand)
#include "tst_connectcommand.moc"
