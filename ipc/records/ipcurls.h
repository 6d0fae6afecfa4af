#pragma once

#include <QtCore/QString>

/// The names of the local sockets, as `QLocalServer::listen` and
/// `QLocalSocket::connectToServer` take them: absolute paths.
namespace shared {

/// @return the path of the main socket. The colon and "local:" are part of the file's name, not a
///         scheme.
inline QString getIpcServiceUrl()
{
    return QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface");
}

/// @param n the endpoint's number, as `createPrivilegedProcess` returned it.
/// @return the path of the n-th client's own socket.
inline QString getIpcProcessUrl(int n)
{
    return QStringLiteral("%1_%2").arg(getIpcServiceUrl()).arg(n);
}

} // namespace shared
