#include "measures.h"

#include <QtCore/QFile>

#include <algorithm>

#include <sys/resource.h>

namespace measures {

qint64 statusOf(qint64 pid, const char *field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = '\n' + status.readAll();
    const QByteArray start = '\n' + QByteArray(field) + ':';
    const int found = text.indexOf(start);
    return found < 0 ? -1
                     : text.mid(found + start.size())
                           .trimmed()
                           .split('\n')
                           .first()
                           .split(' ')
                           .first()
                           .toLongLong();
}

qint64 stackKiB(qint64 pid)
{
    // The pages that were ever touched; the size of the mapping starts beyond what is used.
    QFile maps(QStringLiteral("/proc/%1/smaps").arg(pid));
    if (!maps.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = maps.readAll();
    const int stack = text.indexOf("[stack]");
    const int found = stack < 0 ? -1 : text.indexOf("Rss:", stack);
    if (found < 0)
        return -1;
    return text.mid(found + 4).trimmed().split(' ').first().toLongLong();
}

bool allowDescriptors(quint64 number)
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= number)
        return true;
    limit.rlim_cur = number;
    limit.rlim_max = std::max<rlim_t>(limit.rlim_max, number);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

} // namespace measures
