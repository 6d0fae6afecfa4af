#pragma once

#include "vpnserverinformation.h"

#include <QtCore/QDir>
#include <QtCore/QStringList>

#include <optional>

namespace vpnctl {

/// A server record as support staff write it: a JSON object with the keys "name", "id", "info",
/// "host", "ca", "key", "cert", "udpPort" and "tcpPort", all but "host" optional. "ca", "key" and
/// "cert" are paths of PEM files, or the PEM text itself. A port that is missing or 0 means that
/// the server does not serve the transport.
struct ServerRecord
{
    VpnServerInformation server;
    QStringList unknownKeys;
};

/// @param json the text of the record.
/// @param source where it comes from, for the error.
/// @param folder what relative paths in it are relative to.
/// @param error set, when nothing is returned, to one sentence.
std::optional<ServerRecord> parseServerRecord(const QByteArray &json, const QString &source,
                                              const QDir &folder, QString *error);

/// Reads a record from a file; paths in it are relative to the file's folder.
std::optional<ServerRecord> readServerRecord(const QString &path, QString *error);

} // namespace vpnctl
