#include "bashscript.h"

#include <QtCore/QDebug>
#include <QtCore/QProcess>

namespace vpncore {

QString runBashScript(const QString &script, std::chrono::milliseconds limit)
{
    QProcess bash;
    bash.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), script});
    bash.waitForFinished(static_cast<int>(limit.count()));
    QString output = QString::fromUtf8(bash.readAllStandardOutput().constData());
    qDebug() << output;
    bash.close();
    return output;
}

} // namespace vpncore
