#include "socketname.h"

#include <QtCore/QDebug>
#include <QtCore/QFile>

#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// @return the status of what stands there; nothing when that is not this process's user's.
std::optional<struct stat> ownStatusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || status.st_uid != ::geteuid())
        return {};
    return status;
}

} // namespace

bool socketname::isTakenByOwnUser(const QString &path)
{
    return ownStatusOf(path).has_value();
}

void socketname::warnUnlessOwnSocket(const QString &path)
{
    const std::optional<struct stat> status = ownStatusOf(path);
    if (!status || !S_ISSOCK(status->st_mode))
        qWarning() << "Something else stands at the name of the main socket:" << path;
}
