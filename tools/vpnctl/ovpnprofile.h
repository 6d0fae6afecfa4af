#pragma once

#include "target.h"

#include <optional>

namespace vpnctl {

/// What an ordinary OpenVPN client profile says about the server, as far as the daemon can use it.
struct OvpnProfile
{
    struct Remote
    {
        QString host;
        int port = 0; ///< 0 where a line leaves it open; never so in a whole profile.
        std::optional<Transport> transport; ///< the same
    };

    QVector<Remote> remotes; ///< in the order of the profile, at least one
    VpnServerInformation server; ///< ca, cert and key, as far as the profile has them

    /// Directives that the daemon's configuration lacks, each once, in order: those that protect
    /// the user, and others. Those that change nothing for the user are left out.
    Weaknesses weaknesses;
    QStringList notCarriedOver;
};

/// Reads a profile from a file; paths in it are relative to the file's folder.
/// @throws Problem when it is wrong, with the line's number where that can be told.
OvpnProfile readOvpnProfile(const QString &path);

/// @return the directives that protect a profile's user, with what comes of it that the daemon does
///         not take them over. Directives that share a sentence are separated by blanks.
Weaknesses protections();

} // namespace vpnctl
