#pragma once

class QLocalSocket;
class QRemoteObjectHostBase;

/// Hands a connection to a host, and sees to it that the host forgets it when it ends: with what
/// Qt 5.15 does by itself, a host goes on to write to every connection that it ever had.
///
/// @param socket deleted when the connection ends, unless the host would not get to know of it.
void addHostConnection(QRemoteObjectHostBase &host, QLocalSocket *socket);
