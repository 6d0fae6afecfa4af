#pragma once

#include <QtCore/QProcess>

/// One run of the daemon as launchd has it: with the command, the limits, the environment and the
/// log file of its property list, in a process group of its own, which launchd ends when the daemon
/// has died. The stand-in for launchctl (lab/standins/sbin) knows how. Only for use in a private
/// root.
class LaunchdJob : public QProcess
{
    Q_OBJECT

public:
    /// What becomes of the processes that a dead daemon leaves.
    enum class Survivors { AreEnded, StayAlive };

    /// Puts bundle and launcher in their places.
    LaunchdJob();
    ~LaunchdJob() override;

    /// Starts the daemon and waits until it accepts clients.
    /// @return false when it does not within some seconds.
    bool run();

    /// Starts the daemon and waits for nothing but its start.
    bool startOnly();

    /// Ends the daemon with SIGKILL, when it is still there, and cleans up as launchd does.
    /// @return false when a process of the group would not go.
    bool crash(Survivors survivors = Survivors::AreEnded);

    /// @return everything that the runs so far have written to standard error.
    QByteArray log() const;

private:
    qint64 m_group = 0;
};
