#pragma once

#include <QtCore/QtGlobal>

/// Every limit that the sockets put on their clients, with its reason.
namespace guard {

/// The longest frame, without the four bytes of its own length. A connect with its three PEM texts
/// has some 30 KiB, of which a long chain of certificates makes twice as much.
constexpr quint32 kMaxFrameBytes = 256 * 1024;

/// What is read from one client before the others have their turn.
constexpr qint64 kMaxReadBytes = 32 * 1024;

/// The answers that wait for one client. Who does not read for so long never will.
constexpr qint64 kMaxUnreadBytes = 1024 * 1024;

/// What is held for all clients together, in unfinished frames and unread answers, before nobody
/// may have more than a fair share.
constexpr qint64 kMaxHeldBytes = 16 * 1024 * 1024;

/// The fair share of one client: enough for an ordinary connect that arrives in pieces.
constexpr qint64 kMaxShareBytes = 64 * 1024;

/// The longest call whose arguments a host may keep until the next one: no key fits into it
/// together with its certificates.
constexpr int kMaxKeptBytes = 4 * 1024;

/// What the tunnels of one user take: 16 of them with four descriptors each.
constexpr int kTunnelDescriptors = 64;

/// The descriptors that a new connection leaves: enough for a tunnel with its scripts.
constexpr int kConnectionReserve = 32;

/// The descriptors that a new endpoint leaves: the same, and connections to the endpoints that
/// there are.
constexpr int kEndpointReserve = 64;

} // namespace guard
