#pragma once

#include "operationresult.h"
#include "options.h"
#include "report.h"
#include "vpnserverinformation.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QScopedPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QLocalSocket>
#include <QtRemoteObjects/QRemoteObjectNode>

#include <memory>

class IpcInterfaceReplica;
class ServiceInterfaceReplica;

namespace vpnctl {

/// One run of a subcommand: a conversation with the daemon from its start to an exit status.
/// Nothing here waits. What comes of a call is told by a virtual function, from the event loop; a
/// conversation that fails finishes the command.
class Command : public QObject
{
    Q_OBJECT

public:
    /// @return the object for the command that @p options ask for.
    /// @param report must outlive the command.
    static std::unique_ptr<Command> create(const Options &options, Report &report);

    Command(const Options &options, Report &report);
    ~Command() override;

    /// Begins; call once. finished() may come from within.
    /// @throws Problem when the files that the options name are wrong.
    virtual void start() = 0;

    /// A signal asks to stop.
    virtual void stop() { finish(ExitCode::Interrupted); }

    /// Nobody gives input or takes output any more.
    virtual void hangUp() { stop(); }

Q_SIGNALS:
    /// Comes once; nothing is printed after it.
    /// @param exitCode an ExitCode
    void finished(int exitCode);

protected:
    // One of these comes first, and opened() when it is done.

    /// Goes as far as the main socket's interface, which leaves nothing behind in the daemon.
    void openMainSocket();

    /// Has the daemon make an endpoint, reports its number and connects to it. The endpoint lasts
    /// as long as the daemon.
    void openNewEndpoint();

    /// Connects to an endpoint that is there.
    void openEndpoint(int endpoint);

    /// The daemon closes the connection at a longer frame than it allows, so check before opening.
    /// @throws Problem when the command @p message with the record @p server is too long.
    static void checkLength(const QString &message, const VpnServerInformation &server);

    /// Sends a command as it stands to the endpoint, and awaits its answer.
    void send(const QString &message, const VpnServerInformation &server = {});

    /// Calls the heartbeat, now and again and again. From the first one on the daemon takes the
    /// tunnel down when it hears none for 30 s, without an answer.
    void keepAlive();

    virtual void opened() = 0;

    /// An answer on this endpoint, whoever gave the command. It may not be the awaited one.
    /// @param message JSON; commandOf() tells which command it is about.
    virtual void answered(const QString &, const OperationResult &) {}

    /// @return how long the answer took; it is no longer awaited.
    Seconds answerArrived();

    /// The awaited answer has not come in time.
    virtual void giveUpWaiting() { finishWith(lateAnswer()); }

    Problem lateAnswer() const;

    void finish(ExitCode exitCode);
    void finishWith(const Problem &problem);

    const Options m_options;
    Report &m_report;
    int m_endpoint = 0; ///< 0 before there is one

private:
    /// A socket of the daemon, and the object behind it. Destroyed in reverse order: nodes and
    /// replicas before the socket that carries them.
    template<typename Replica>
    struct Link
    {
        QLocalSocket socket;
        QRemoteObjectNode node;
        QScopedPointer<Replica> replica;
    };

    template<typename Replica>
    void open(Link<Replica> &link, const QString &name, void (Command::*next)());
    void createEndpoint();
    void await(std::chrono::milliseconds limit);

    Link<IpcInterfaceReplica> m_main;
    Link<ServiceInterfaceReplica> m_service;
    QTimer m_limit;
    QTimer m_heartbeat;
    QTimer m_progress;
    QElapsedTimer m_sinceRequest;
    bool m_isFinished = false;
};

/// For Command::create().
std::unique_ptr<Command> makeConnectCommand(const Options &options, Report &report);

} // namespace vpnctl
