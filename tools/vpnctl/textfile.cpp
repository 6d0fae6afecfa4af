#include "textfile.h"

#include "problem.h"

#include <QtCore/QFile>

namespace vpnctl {

QString readTextFile(const QString &path, const QString &what)
{
    constexpr int kMaxBytes = 1'048'576;
    QFile file(path);
    QByteArray content;
    if (file.open(QIODevice::ReadOnly)) {
        // A pipe gives what it has, a device says that its size is 0: only reading tells.
        QByteArray part;
        do {
            part = file.read(kMaxBytes + 1 - content.size());
            content += part;
        } while (!part.isEmpty());
    }
    if (file.error() != QFile::NoError)
        throw wrongUse(
            QStringLiteral("Cannot read the %1 %2: %3.").arg(what, path, file.errorString()));
    if (content.size() > kMaxBytes)
        throw wrongUse(
            QStringLiteral("The %1 %2 is too large; at most 1 MiB is read.").arg(what, path));
    if (content.contains('\0'))
        throw wrongUse(
            QStringLiteral("The %1 %2 is not in UTF-8, but probably in UTF-16.").arg(what, path),
            QStringLiteral("Save it as UTF-8: iconv -f UTF-16 -t UTF-8."));
    return QString::fromUtf8(content);
}

} // namespace vpnctl
