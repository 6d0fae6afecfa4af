#pragma once

#include "client.h"
#include "daemonprocess.h"
#include "eventwait.h"
#include "result.h"

#include <QtCore/QProcess>

#include <chrono>
#include <functional>

/// What the rows measure, and what a client does with it. Only for use in a private root, except
/// for processorTime() and processorTimeOfSpinning(). Everything turns the event loop while it
/// waits, and throws MeasurementFailed when it does not come to what it waits for.

/// @return what all threads of a process have used so far, user and system, in milliseconds.
double processorTime(qint64 pid);

/// @param field "Rss", or "Pss" for memory in which each page is divided by the number of processes
///              that share it.
/// @return KiB.
double memoryOf(qint64 pid, const char *field);

/// The baseline for waits: starts "sleep" and spins over processEvents() until it has ended.
/// @return the processor time of this process in milliseconds.
double processorTimeOfSpinning(std::chrono::seconds duration);

/// A server program that writes its log to a file, as under launchd, and ends with this object.
class Program
{
public:
    /// Starts the program and waits until its socket accepts connections.
    Program(const QStringList &command, const QString &socketName);
    ~Program();

    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    qint64 pid() const { return m_process.processId(); }

    /// @return the milliseconds from before the start of the program to the first connection.
    double startTime() const { return m_startTime; }

    qint64 logSize() const;
    /// @return the log from @p start on.
    QByteArray logFrom(qint64 start) const;

private:
    QProcess m_process;
    double m_startTime = 0;
};

/// The daemon, installed in an emptied private root. It is made first in a row: making it ends what
/// has files there.
class Daemon : public Program
{
public:
    explicit Daemon(DaemonProcess::Openvpn openvpn = DaemonProcess::Openvpn::StandIn);
};

/// The smallest Remote Objects host, on the socket of an endpoint that no daemon comes to.
class MinimalHost : public Program
{
public:
    static constexpr int kEndpoint = 1'000'000;

    /// Whether it reads a command to log its type, or knows what to log.
    enum class Commands { Read, Unread };

    explicit MinimalHost(Commands commands = Commands::Read);
};

/// Real OpenVPN servers, as long as this lives; see vpnlab.
class Lab
{
public:
    Lab();
    ~Lab();

    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;
};

/// A client on an endpoint of its own.
class AttachedClient : public Client
{
public:
    AttachedClient();

    using Command = std::function<void()>;

    /// Sends a command and waits for its answer.
    /// @return the milliseconds from command to answer.
    double timeOf(const Command &command);

    /// The same, and the answer must be a success.
    double connectTunnel(const VpnServerInformation &server, bool isUdp = true);
    double endTunnel();
};

/// Waits for something that is no event of this process, by looking every millisecond.
void pollUntil(const std::function<bool()> &isDone, const char *failure);

/// One run of openvpn without the daemon.
struct BareRun
{
    double untilSuccess; ///< milliseconds from before its start to its success line
    double untilEnd; ///< milliseconds from SIGTERM to its end
};

/// Starts the program beside the daemon with the configuration @p file and stops it when it is up.
BareRun runBare(const QString &file);

/// Connects and disconnects once.
/// @return the name of a copy of the configuration that the daemon wrote.
QString configurationFrom(AttachedClient &client, const VpnServerInformation &server, bool isUdp);

/// Runs the script that gives the DNS settings back, as the daemon does.
/// @return the milliseconds that it took.
double runRestoreScript();
