#pragma once

#include <QtCore/QString>

/// PEM texts of the right form; what they encode means nothing.
namespace pemtexts {

inline QString block(const QString &label, const QString &body = QStringLiteral("QUJD"))
{
    return QStringLiteral("-----BEGIN %1-----\n%2\n-----END %1-----\n").arg(label, body);
}

inline QString certificate(const QString &body = QStringLiteral("QUJD"))
{
    return block(QStringLiteral("CERTIFICATE"), body);
}

inline QString key()
{
    return block(QStringLiteral("PRIVATE KEY"));
}

} // namespace pemtexts
