#pragma once

#include "daemonprocess.h"

/// The daemon as launchd's job: in a process group of its own, which launchd ends when the daemon
/// has died, and started again with the names of its sockets free.
class LaunchdJob
{
public:
    /// What becomes of the processes that a dead daemon leaves.
    enum class Survivors { AreEnded, StayAlive };

    LaunchdJob();
    ~LaunchdJob();
    LaunchdJob(const LaunchdJob &) = delete;
    LaunchdJob &operator=(const LaunchdJob &) = delete;

    /// Starts the daemon and waits until it listens.
    bool start();

    /// Starts the daemon and waits for nothing.
    bool startOnly();

    /// Ends the daemon with SIGKILL and cleans up as launchd does.
    /// @return false when a process of the group would not go.
    bool kill(Survivors survivors = Survivors::AreEnded);

    DaemonProcess &daemon() { return m_daemon; }

private:
    DaemonProcess m_daemon;
};
