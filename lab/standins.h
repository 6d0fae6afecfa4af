#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

/// What the stand-ins for the system's tools have been asked, and the state they keep; see
/// lab/standins. Only for use in a private root.
namespace standins {

/// One start of the stand-in for openvpn.
struct OpenvpnStart
{
    qint64 pid = 0;
    QStringList arguments; ///< the program's name first
};

/// @return the starts so far, oldest first.
QVector<OpenvpnStart> openvpnStarts();

/// @return how many of the processes that were started as openvpn are still there.
int runningOpenvpns();

/// @return the configuration that a start has read.
QByteArray configurationOf(const OpenvpnStart &start);

/// @return the permissions of its configuration file, octal, for example "600".
QByteArray configurationModeOf(const OpenvpnStart &start);

/// @return a record whose host makes the stand-in for openvpn play @p scenario.
VpnServerInformation serverFor(const QString &scenario);

/// @return a record that makes it run @p script, one line of bash; see lab/standins/openvpn.
VpnServerInformation serverThatPlays(const QString &script);

/// @return the DNS servers of a network service.
QStringList dnsServers(const QString &service);

/// @return the search domains of a network service.
QStringList searchDomains(const QString &service);

/// Sets what a network service has, as its user would.
void setDns(const QString &service, const QStringList &servers, const QStringList &domains);

/// @return the calls of networksetup so far, each argument quoted by bash's printf %q.
QStringList networksetupCalls();

/// @return the data folder of the daemon, where the DNS backup files live.
QString dataFolder();

/// @return the names of the files in dataFolder().
QStringList backupFiles();

/// Writes a DNS backup file as the tunnel's up script does.
void writeBackup(const QString &name, const QByteArray &content);

/// @return the calls of a stand-in written in bash so far, each as its exact arguments.
QVector<QStringList> calls(const QString &tool);

/// @return a file of the stand-ins' state, as lines without the empty ones; @p name begins with
///         the tool's.
QStringList stateLines(const QString &name);

/// Writes a file of the stand-ins' state.
void setState(const QString &name, const QByteArray &content);

/// Writes a tool of its own for a test, a script of bash, in place of what is at @p path.
void writeTool(const QString &path, const QByteArray &script);

/// The same in front of networksetup, which is "$0.kept" then; for the rest of the test program.
void wrapNetworksetup(const QByteArray &script);

/// @return true while there is a process @p pid that is not a zombie.
bool isAlive(qint64 pid);

} // namespace standins
