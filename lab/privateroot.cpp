#include "privateroot.h"

#include "standins.h"

#include <QtCore/QDir>
#include <QtCore/QString>

#include <csignal>
#include <unistd.h>

namespace lab {

namespace {

void empty(const QString &folder)
{
    const QDir content(folder);
    const auto entries = content.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System
                                               | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        if (entry.isDir() && !entry.isSymLink())
            QDir(entry.filePath()).removeRecursively();
        else
            QFile::remove(entry.filePath());
    }
}

} // namespace

bool isPrivateRoot()
{
    return ::access("/talvex-private-root", F_OK) == 0;
}

void resetPrivateRoot()
{
    if (!isPrivateRoot())
        qFatal("only a private root may be reset");
    for (const standins::OpenvpnStart &start : standins::openvpnStarts()) {
        if (standins::isAlive(start.pid))
            ::kill(static_cast<pid_t>(start.pid), SIGKILL);
    }
    for (const char *folder : {"/tmp", "/var/root", "/Applications", "/Library"})
        empty(QString::fromLatin1(folder));
    QDir().mkpath("/Library/LaunchDaemons");
}

} // namespace lab
