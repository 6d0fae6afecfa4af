#include "privateroot.h"

#include "standins.h"

#include <QtCore/QDir>
#include <QtCore/QProcess>

#include <csignal>
#include <unistd.h>

namespace lab {

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
    QProcess::execute(
        "find", {"/tmp", "/var/root", "/Applications", "/Library", "-mindepth", "1", "-delete"});
    QDir().mkpath("/Library/LaunchDaemons");
}

} // namespace lab
