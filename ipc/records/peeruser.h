#pragma once

#include <QtCore/QtGlobal>

constexpr quint32 kRootUser = 0;

/// @param descriptor a connected local socket.
/// @return the user id of who opened its other end (SO_PEERCRED of unix(7), getpeereid(3)); one
///         that nobody has when the system does not know.
quint32 userOfPeer(int descriptor);
