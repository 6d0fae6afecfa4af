#pragma once

#include <QtCore/QDir>
#include <QtCore/QString>

#include <optional>

namespace vpnctl {

/// What a PEM text is for, which decides what it must hold.
enum class PemKind { Authority, Certificate, Key };

/// @return the name of the setting: "ca", "cert" or "key".
QString pemName(PemKind kind);

/// Takes the PEM blocks out of a text. Whatever stands around them is left out, so that nothing of
/// it can be mistaken for openvpn's own directives later.
///
/// @param source where the text comes from, for the error.
/// @param error set, when nothing is returned, to one sentence.
/// @return the blocks, each ended by a line feed; nothing when there is none of the right kind,
///         when a key is encrypted, or when a block holds anything but base64 and headers.
std::optional<QString> pemFromText(PemKind kind, const QString &text, const QString &source,
                                   QString *error);

/// Reads a PEM file.
/// @param folder what a relative @p path is relative to.
/// @return as pemFromText(), and nothing when the file cannot be read.
std::optional<QString> pemFromFile(PemKind kind, const QString &path, const QDir &folder,
                                   QString *error);

} // namespace vpnctl
