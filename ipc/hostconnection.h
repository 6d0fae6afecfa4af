#pragma once

class QLocalSocket;
class QRemoteObjectHost;

/// Hands a connection to a host, as QRemoteObjectHost::addHostSideConnection() does, and makes the
/// host forget it when it ends. By itself a host never notices the end of a connection that was
/// handed to it: it would keep some 800 bytes for every one there ever was, and send to all.
///
/// @param socket not owned; must live until it has emitted disconnected().
void addHostSideConnection(QRemoteObjectHost *host, QLocalSocket *socket);
