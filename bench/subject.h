#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QString>

#include <chrono>
#include <stdexcept>

/// A measurement that could not be made although the machine provides what it needs.
class MeasurementFailed : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// Throws MeasurementFailed with @p text unless @p holds.
void require(bool holds, const char *text);

/// A server program that is measured from outside: it runs with its log in a file, as launchd would
/// start it, and is killed with this object.
class Subject
{
public:
    /// Starts the program and waits until its socket accepts connections.
    Subject(const QStringList &command, const QString &socketName);
    ~Subject();

    Subject(const Subject &) = delete;
    Subject &operator=(const Subject &) = delete;

    qint64 pid() const { return m_process.processId(); }

    /// @return the milliseconds from before the start of the program to the first connection.
    double startTime() const { return m_startTime; }

    /// @return what all threads have used so far, user and system.
    std::chrono::nanoseconds processorTime() const;

    /// @return how often its threads have gone to sleep by themselves.
    qint64 voluntarySwitches() const;

    int threads() const;

    /// @return resident memory in KiB, each page divided by the number of processes that share it.
    qint64 proportionalMemory() const;

    /// @return resident memory in KiB.
    qint64 residentMemory() const;

    qint64 logSize() const;
    /// @return the log from @p start on.
    QByteArray logFrom(qint64 start) const;

private:
    qint64 memory(const QByteArray &field) const;

    QProcess m_process;
    QString m_logName;
    double m_startTime = 0;
};

/// Starts the daemon, or another program in its place, from the bundle that install() has made.
class Daemon : public Subject
{
public:
    enum class Openvpn { StandIn, Real };
    enum class Waits { Sleeping, Spinning };

    explicit Daemon(Openvpn openvpn = Openvpn::StandIn, Waits waits = Waits::Sleeping,
                    const QStringList &wrapper = {});

    /// @return the openvpn that lies beside the daemon.
    static QString openvpnProgram();

private:
    /// Only for use in a private root.
    static QStringList install(Openvpn openvpn, Waits waits, const QStringList &wrapper);
};

/// The smallest Remote Objects host, on the socket of an endpoint that no daemon comes to.
class MinimalHost : public Subject
{
public:
    static constexpr int kEndpoint = 1'000'000;

    /// Whether it reads a command to log its type, or knows what to log.
    enum class Commands { Read, Unread };

    explicit MinimalHost(Commands commands = Commands::Read);
};
