#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

namespace vpnctl {

/// Far more than any profile, record or chain of certificates; keeps a wrong path, which may be
/// that of a device without an end, from filling the memory.
constexpr int kMaxFileBytes = 1'048'576;

/// Reads a whole file.
/// @param what it is, for the error: "profile", for example.
/// @param error set, when nothing is returned, to one sentence.
/// @return the content; nothing when the file cannot be read or has more than kMaxFileBytes bytes.
std::optional<QByteArray> readTextFile(const QString &path, const QString &what, QString *error);

} // namespace vpnctl
