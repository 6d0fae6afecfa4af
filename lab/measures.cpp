#include "measures.h"

#include "files.h"

#include <QtCore/QRegularExpression>

#include <algorithm>
#include <ctime>

#include <unistd.h>

namespace measures {

qint64 statusOf(qint64 pid, const QString &field, const QString &file)
{
    const auto found =
        QRegularExpression('^' + field + ":\\s*(\\d+)", QRegularExpression::MultilineOption)
            .match(lab::contentOf(QString("/proc/%1/%2").arg(pid).arg(file)));
    return found.hasMatch() ? found.captured(1).toLongLong() : -1;
}

bool growsByLess(qint64 beforeKiB, qint64 nowKiB, qint64 limitKiB)
{
    qInfo("memory grew by %lld KiB, limit %lld", nowKiB - beforeKiB, limitKiB);
#if defined(__SANITIZE_ADDRESS__)
    return true;
#else
    return beforeKiB > 0 && nowKiB - beforeKiB < limitKiB;
#endif
}

double processorTime(qint64 pid)
{
    clockid_t clock = {};
    timespec time = {};
    if (::clock_getcpuclockid(static_cast<pid_t>(pid), &clock) != 0
        || ::clock_gettime(clock, &time) != 0)
        return -1;
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

bool allowDescriptors(rlim_t number)
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, number);
    limit.rlim_max = std::max(limit.rlim_max, number);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

FewDescriptors::FewDescriptors(int left)
{
    ::getrlimit(RLIMIT_NOFILE, &m_former);
    const int next = ::dup(0);
    ::close(next);
    const rlimit few = {static_cast<rlim_t>(next + left), m_former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
}

FewDescriptors::~FewDescriptors()
{
    ::setrlimit(RLIMIT_NOFILE, &m_former);
}

} // namespace measures
