#pragma once

#include "client.h"
#include "daemonprocess.h"
#include "eventwait.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonArray>
#include <QtCore/QProcess>

#include <chrono>
#include <functional>
#include <map>
#include <string>

// Everything here turns the event loop while it waits, and throws when it does not come to what it
// waits for.

using namespace std::chrono_literals;

constexpr auto kLimit = 40s;

/// What a row has found in its rounds, and the same of its baseline where it has one. Subject and
/// baseline take turns, because the machine's speed changes with time. The remark may name, in
/// braces, what scripts/bench finds in them.
struct Measurement
{
    QJsonArray samples;
    QJsonArray baseline;
    QString remark;
};

const QString kWorst =
    QStringLiteral("worst {worst:.1f} ms, of the baseline {worst_of_baseline:.1f} ms");

/// Functions that start what they measure and leave nothing running, by the row's number.
using Rows = std::map<std::string, Measurement (*)()>;

Rows processRows();
Rows tunnelRows();
Rows remoteCallRows();

/// Ends the row as failed, with @p text as the reason, unless @p holds.
void require(bool holds, const char *text);

/// @return the milliseconds of processor time that a process uses while @p work is done.
double processorTimeOf(qint64 pid, const std::function<void()> &work);

/// @return the KiB of the field "Rss" or "Pss", of a program that has not ended.
double memoryOf(qint64 pid, const char *field);

double milliseconds(const QElapsedTimer &timer);

/// Waits for something that is no event of this process, by looking every millisecond.
void pollUntil(const std::function<bool()> &isDone, const char *failure);

/// A server program that writes its log to a file, as under launchd, and ends with this object.
class Program
{
public:
    /// Starts the program and waits until its socket accepts connections.
    Program(const QStringList &command, const QString &socketName);
    ~Program();
    Q_DISABLE_COPY(Program)

    qint64 pid() const { return m_process.processId(); }

    /// @return the milliseconds from before the start of the program to the first connection.
    double startTime() const { return m_startTime; }

    /// @return the path of its log.
    QString log() const { return QStringLiteral("/proc/%1/fd/2").arg(pid()); }

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

    /// @param commands "read" when it reads a command to log its type, else it knows what to log.
    explicit MinimalHost(const QString &commands = QStringLiteral("read"));
};

/// A client on an endpoint of its own.
class AttachedClient : public Client
{
public:
    AttachedClient();

    /// Sends a command and waits for its answer.
    /// @return the milliseconds from command to answer.
    double timeOf(const std::function<void()> &command);

    /// The same, and the answer must be a success.
    double connectTunnel(const VpnServerInformation &server, bool isUdp = true);
    double endTunnel();
};

/// Makes the OpenVPN servers that vpnlab::server() describes.
void needServers();

/// Runs the script that gives the DNS settings back, as the daemon does.
/// @return the milliseconds that it took.
double runRestoreScript();
