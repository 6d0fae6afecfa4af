#pragma once

#include <QtCore/QFile>

namespace lab {

/// @return what is in a file; nothing when it cannot be read.
inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace lab
