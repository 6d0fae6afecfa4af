#pragma once

class QLocalSocket;
class QRemoteObjectHostBase;

/// Hands a connection to a host, and sees to it that the host forgets it when it ends: with what
/// Qt 5.15 does by itself, a host goes on to write to every connection that it ever had.
///
/// @param host must live no longer than @p socket's parent, and publishes as before.
/// @param socket not null, and open. It is deleted when the connection ends. Should this Qt give
/// the
///        host no way to get to know of that, a warning is logged, and socket and descriptor stay
///        until the parent goes.
void addHostConnection(QRemoteObjectHostBase &host, QLocalSocket *socket);
