#pragma once

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <chrono>
#include <functional>

class QProcess;

namespace vpncore {

/// Sees to it that the DNS settings come back, also when the first try could not do it: a restore
/// that took too long was cut off, one that could not start has done nothing, and an up script that
/// was still running may have changed settings after it.
///
/// While backups are left and no `openvpn` runs, the restore runs again, after 1, 2, 4, ... 60 s,
/// ten times at most.
class DnsRestorer : public QObject
{
    Q_OBJECT

public:
    struct Limits
    {
        std::chrono::milliseconds firstPause{std::chrono::seconds(1)};
        std::chrono::milliseconds longestPause{std::chrono::seconds(60)};
        int repetitions = 10;
    };

    /// @return the one of this process, which restores with MacPlatform::updateDns(). It needs a
    ///         `QCoreApplication`, which owns it.
    static DnsRestorer &instance();

    /// @param restore runs the restore script.
    /// @param hasBackups says whether there is anything left to restore.
    DnsRestorer(const std::function<void()> &restore, const std::function<bool()> &hasBackups,
                const Limits &limits, QObject *parent);

    /// Restores now, and again later while that is needed. Blocks as @c restore does.
    void restore();

    /// Restores later while that is needed, for a restore that has just been run by somebody else.
    void watch();

    /// Pauses the repetitions while @p openvpn runs. Its end alone restores nothing.
    void pauseWhileRunning(const QProcess &openvpn);

private:
    void repeat();

    std::function<void()> m_restore;
    std::function<bool()> m_hasBackups;
    Limits m_limits;
    QTimer m_pause;
    std::chrono::milliseconds m_nextPause{};
    int m_repetitions = 0;
    int m_running = 0;
};

} // namespace vpncore
