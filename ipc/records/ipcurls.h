#pragma once

#include <QtCore/QString>

/// The names of the local sockets, as `QLocalServer::listen` and
/// `QLocalSocket::connectToServer` take them: absolute paths.
namespace shared {

/// @return the path of the main socket.
QString getIpcServiceUrl();

/// @param n the endpoint's number, as `createPrivilegedProcess` returned it.
/// @return the path of the n-th client's own socket.
QString getIpcProcessUrl(int n);

} // namespace shared
