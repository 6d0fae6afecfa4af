#include "textfile.h"

#include <QtCore/QFile>

namespace vpnctl {

std::optional<QByteArray> readTextFile(const QString &path, const QString &what, QString *error)
{
    QFile file(path);
    QByteArray content;
    if (file.open(QIODevice::ReadOnly)) {
        // A pipe gives what it has, a device says that its size is 0: only reading tells.
        QByteArray part;
        do {
            part = file.read(kMaxFileBytes + 1 - content.size());
            content += part;
        } while (!part.isEmpty());
    }
    if (file.error() != QFile::NoError) {
        *error = QStringLiteral("Cannot read the %1 %2: %3.").arg(what, path, file.errorString());
        return {};
    }
    if (content.size() > kMaxFileBytes) {
        *error = QStringLiteral("The %1 %2 is too large; at most 1 MiB is read.").arg(what, path);
        return {};
    }
    return content;
}

} // namespace vpnctl
