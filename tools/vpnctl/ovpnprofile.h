#pragma once

#include "target.h"

#include <QtCore/QDir>
#include <QtCore/QStringList>

#include <optional>

namespace vpnctl {

/// What an ordinary OpenVPN client profile says about the server, as far as the daemon can use it.
struct OvpnProfile
{
    struct Remote
    {
        QString host;
        int port = 0;
        Transport transport = Transport::Udp;
    };

    QVector<Remote> remotes; ///< in the order of the profile, at least one
    QString ca; ///< PEM; empty when the profile has none
    QString cert;
    QString key;

    /// Directives that the daemon's own configuration does not have, each once, in order.
    QStringList notCarriedOver;

    /// Those of notCarriedOver without which a server that asks for them lets nobody in.
    QStringList likelyNeeded;
};

/// @param text the profile.
/// @param source where it comes from, for the error.
/// @param folder what relative paths in it are relative to.
/// @param error set, when nothing is returned, to one sentence, with the line's number where it
///        can be told.
std::optional<OvpnProfile> parseOvpnProfile(const QString &text, const QString &source,
                                            const QDir &folder, QString *error);

/// Reads a profile from a file; paths in it are relative to the file's folder.
std::optional<OvpnProfile> readOvpnProfile(const QString &path, QString *error);

} // namespace vpnctl
