#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace vpnctl {

/// A localisation key of the daemon in plain English.
struct Explanation
{
    QString text; ///< What happened, one sentence.
    QString advice; ///< What to do about it; empty for a key that is not known.
};

/// @param key the message of an OperationResult.
/// @return its explanation; for a message that is no known key, the message itself.
Explanation explain(const QString &key);

/// @return the keys that explain() knows.
QStringList explainedKeys();

} // namespace vpnctl
