#pragma once

#include "vpnserverinformation.h"

namespace vpnctl {

/// Reads a whole file in UTF-8, of at most a million characters: far more than any profile, record
/// or chain of certificates. That keeps a wrong path, which may be that of a device without an end,
/// from filling the memory.
/// @param what it is, for the problem: "profile", for example.
/// @throws Problem when the file cannot be read or is too large.
QString readTextFile(const QString &path, const QString &what);

/// A setting that holds PEM. Profiles, records and options call it by the same name.
struct PemSetting
{
    const char *name;
    const char *label; ///< how the label of the block that it needs ends
    QString VpnServerInformation::*field;
};

constexpr PemSetting kPemSettings[] = {
    {"ca", "CERTIFICATE", &VpnServerInformation::ca},
    {"cert", "CERTIFICATE", &VpnServerInformation::cert},
    {"key", "PRIVATE KEY", &VpnServerInformation::key},
};

/// Takes the PEM blocks out of a text. Whatever stands around them is left out, so that nothing of
/// it can be mistaken for openvpn's own directives later.
/// @param source where the text comes from, for the problem.
/// @return the blocks, each ended by a line feed.
/// @throws Problem when there is no block of the right kind, when a key is encrypted, or when a
///         block holds anything but base64.
QString pemFromText(const PemSetting &setting, const QString &text, const QString &source);

/// The same for a file.
/// @throws Problem as pemFromText(), and when the file cannot be read.
QString pemFromFile(const PemSetting &setting, const QString &path);

} // namespace vpnctl
