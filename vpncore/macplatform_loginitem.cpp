#include "macplatform.h"

#include <QtCore/QDebug>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QTextStream>

namespace vpncore {

namespace {

const QLatin1String kLoginItem("TalvexVPN");

const char kListCommand[] =
    R"(osascript -e 'tell application "System Events" to get the name of every login item')";
const char kAddCommand[] =
    R"(osascript -e 'tell application "System Events" to make login item at end with properties {name: "TalvexVPN",path:"%1", hidden:false}')";
const char kDeleteCommand[] =
    R"(osascript -e 'tell application "System Events" to delete login item "TalvexVPN"')";

/// Leaves a shell script with the one command in the working folder, executable, because the quotes
/// in the commands are a shell's. Without the right to write there is no new file.
/// @return the words that run what is there; when nothing is, it cannot be started.
QStringList writeScript(const QString &fileName, const QString &command)
{
    QFile file(fileName);
    if (file.exists())
        file.remove();
    if (file.open(QIODevice::WriteOnly)) {
        QTextStream(&file) << command;
        file.close();
    }
    QProcess::execute(QStringLiteral("chmod"), {QStringLiteral("+x"), fileName});

    const QString script = QStringLiteral("./%1").arg(fileName);
    // The kernel starts no file without a "#!" line (ENOEXEC), and neither does QProcess. A shell
    // that is given its name does, as execvp(3) would.
    if (QFileInfo(script).isExecutable())
        return {QStringLiteral("/bin/sh"), QStringLiteral("-c"), script};
    return {script};
}

} // namespace

bool MacPlatform::isRunOnStart()
{
    const QStringList words =
        writeScript(QStringLiteral("list_startup"), QString::fromLatin1(kListCommand));
    QString output;
    runProcess(words.join(QLatin1Char(' ')), static_cast<int>(m_limits.listing.count()), output);
    qDebug() << "--- Console Output " << output;
    return output.contains(kLoginItem);
}

void MacPlatform::setRunOnStart(bool on)
{
    const QString command = on ? QString::fromLatin1(kAddCommand).arg(applicationPath())
                               : QString::fromLatin1(kDeleteCommand);
    const QStringList words = writeScript(QStringLiteral("startup_on_of"), command);
    QProcess::execute(words.first(), words.mid(1));
}

} // namespace vpncore
