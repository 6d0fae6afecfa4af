#pragma once

#include "measures.h"

#include <QtCore/QProcess>
#include <QtCore/QStringList>

/// The daemon under test, installed where users have it. Outside a private root the constructor
/// ends the program.
class DaemonProcess : public QObject
{
    Q_OBJECT

public:
    /// Which program lies beside the daemon as `openvpn`.
    enum class Openvpn { StandIn, Real, Missing };

    explicit DaemonProcess(Openvpn openvpn = Openvpn::StandIn);
    ~DaemonProcess() override;

    /// @return the folder that holds the installed daemon.
    static QString programFolder()
    {
        return QStringLiteral("/Applications/Talvex VPN.app/Contents/MacOS");
    }

    /// Puts something in front of the daemon's command line, for example "prlimit --nofile=256".
    void setWrapper(const QStringList &wrapper) { m_wrapper = wrapper; }

    /// Waits some seconds until a daemon listens on its main socket.
    /// @return whether it does; false as soon as @p process, which is to be that daemon, has ended.
    static bool waitUntilItListens(QProcess &process);

    /// Starts the daemon and waits until it listens.
    /// @return false when it does not listen within some seconds.
    bool start();

    /// Starts the daemon and waits for nothing but its start.
    bool startOnly();

    /// Ends the daemon at once (SIGKILL) and waits for it to be gone.
    void kill();

    bool isRunning() const { return m_process.state() == QProcess::Running; }
    qint64 pid() const { return m_process.processId(); }

    /// @return everything the daemon has written to standard error, with complete lines only.
    QStringList log();

    /// @return how often the log has @p line, as a whole line.
    int count(const QString &line) { return log().count(line); }

    /// @return the lines that begin with @p start.
    QStringList linesWith(const QString &start);

    /// @return resident memory in KiB.
    qint64 residentKiB() const { return measures::statusOf(pid(), QStringLiteral("VmRSS")); }

    /// @return the number of open descriptors.
    int descriptors() const;

private:
    void install(Openvpn openvpn);

    QProcess m_process;
    QStringList m_wrapper;
    QByteArray m_log;
};
