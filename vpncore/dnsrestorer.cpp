#include "dnsrestorer.h"

#include "dnsscripts.h"
#include "macplatform.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>
#include <QtCore/QProcess>

#include <algorithm>

namespace vpncore {

DnsRestorer &DnsRestorer::instance()
{
    static QPointer<DnsRestorer> restorer;
    if (!restorer) {
        restorer = new DnsRestorer([] { MacPlatform::updateDns(); }, hasDnsBackups, Limits(),
                                   QCoreApplication::instance());
    }
    return *restorer;
}

DnsRestorer::DnsRestorer(const std::function<void()> &restore,
                         const std::function<bool()> &hasBackups, const Limits &limits,
                         QObject *parent)
    : QObject(parent)
    , m_restore(restore)
    , m_hasBackups(hasBackups)
    , m_limits(limits)
{
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, &DnsRestorer::repeat);
}

void DnsRestorer::restore()
{
    m_restore();
    watch();
}

void DnsRestorer::watch()
{
    m_repetitions = 0;
    m_nextPause = m_limits.firstPause;
    m_pause.start(m_nextPause);
}

void DnsRestorer::pauseWhileRunning(const QProcess &openvpn)
{
    ++m_running;
    connect(&openvpn, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this] { --m_running; });
}

void DnsRestorer::repeat()
{
    if (!m_hasBackups() || m_repetitions == m_limits.repetitions)
        return;
    // A tunnel that is up has made its own backups; whoever takes it down restores, and watches
    // anew.
    if (m_running > 0)
        return;
    ++m_repetitions;
    m_restore();
    m_nextPause = std::min(2 * m_nextPause, m_limits.longestPause);
    m_pause.start(m_nextPause);
}

} // namespace vpncore
