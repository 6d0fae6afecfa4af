#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QByteArray>
#include <QtCore/QVector>

/// The bytes that a client in the field sends, taken from Qt's own client side at work.
namespace framerecording {

struct Frame
{
    QByteArray name; ///< what it is, for example "heartbeat"
    QByteArray bytes; ///< with its length in front
};

struct Recording
{
    QVector<Frame> mainSocket; ///< what goes to the main socket, in order
    QVector<Frame> endpoint; ///< what goes to an endpoint, in order
};

/// @return the record that the recorded connect carries.
VpnServerInformation recordedServer();

/// Plays a client against the daemon that listens on shared::getIpcServiceUrl(): it asks for an
/// endpoint, attaches, sends a heartbeat, a disconnect, a connect and a ping, and lets go.
/// Only for use in a private root.
/// @return nothing when a step failed.
Recording record();

} // namespace framerecording
