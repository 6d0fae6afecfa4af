#pragma once

class QLocalSocket;
class QRemoteObjectHost;

/// Hands a connection to a host, as QRemoteObjectHost::addHostSideConnection does, and has the host
/// forget it when it ends.
///
/// The host of Qt 5.15 never learns by itself that a device it was given has disconnected: it keeps
/// the listener, and writes to it, for ever.
///
/// @param host outlives @p socket, or goes before it.
/// @param socket not owned by the host.
void addHostSideConnection(QRemoteObjectHost &host, QLocalSocket *socket);
