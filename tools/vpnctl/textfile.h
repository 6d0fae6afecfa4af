#pragma once

#include <QtCore/QString>

namespace vpnctl {

/// Reads a whole file in UTF-8, of at most 1 MiB: far more than any profile, record or chain of
/// certificates. That keeps a wrong path, which may be that of a device without an end, from
/// filling the memory.
/// @param what it is, for the problem: "profile", for example.
/// @throws Problem when the file cannot be read, is too large, or is no UTF-8.
QString readTextFile(const QString &path, const QString &what);

} // namespace vpnctl
