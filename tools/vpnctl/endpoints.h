#pragma once

#include <QtCore/QVector>

namespace vpnctl {

/// @return the numbers of the endpoints that have a socket, in ascending order. A daemon that was
///         killed leaves its sockets behind.
QVector<int> endpointsWithSockets();

} // namespace vpnctl
