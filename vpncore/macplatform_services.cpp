#include "macplatform.h"

#include <QtCore/QDir>
#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QThread>

namespace vpncore {

namespace {

const char kL2tpFailed[] = "warning.l2tp_connection_fail";

// The service that is dialled and the one that is removed differ by an "n", and that is wanted:
// the created service outlives a disconnect, and the next connect replaces it ("--force").
const char kCreateCommand[] =
    R"(./macosvpn create --l2tp TalvexFreeVPNL2tp --endpoint "%1" --username "%2" --password "%3" --shared-secret "%4" --force)";
const char kHangUpCommand[] = "networksetup -disconnectpppoeservice TalvexFreeVPNL2tp";
const char kRemoveCommand[] = "networksetup -removenetworkservice TalvexFreeVPNnL2tp";

/// Blocks until `ifconfig` has ended; how it did is not looked at.
void switchInterface(const QString &state)
{
    QProcess::execute(QStringLiteral("ifconfig"), {QStringLiteral("en0"), state});
}

} // namespace

OperationResult MacPlatform::disconnect()
{
    const int limit = static_cast<int>(m_limits.tool.count());
    QString ignoredOutput;
    runProcess(QString::fromLatin1(kHangUpCommand), limit, ignoredOutput);
    runProcess(QString::fromLatin1(kRemoveCommand), limit, ignoredOutput);
    return OperationResult::succeeded();
}

OperationResult MacPlatform::connectPptp(const QString &, const QString &, const QString &)
{
    return OperationResult::failed(QStringLiteral("Протокол PPTP не поддерживается."));
}

OperationResult MacPlatform::connectL2tp(const QString &server, const QString &user,
                                         const QString &password, const QString &sharedSecret)
{
    // Composed and not written anywhere, and that is wanted: a debugger shows here in which folder
    // the tool is looked for.
    const QString place = QStringLiteral("create connection curr dir = %1")
                              .arg(QDir(QDir::currentPath()).absolutePath());
    Q_UNUSED(place)

    const QString failureMessage = QObject::tr(kL2tpFailed);
    disconnect();

    // One substitution after another is wanted: a marker inside an earlier value is filled too.
    const QString command =
        QString::fromLatin1(kCreateCommand).arg(server).arg(user).arg(password).arg(sharedSecret);
    QString output;
    if (runProcess(command, static_cast<int>(m_limits.tool.count()), output) != 0
        || !output.contains(QLatin1String("Finished without errors")))
        return OperationResult::failed(failureMessage);

    QThread::msleep(static_cast<unsigned long>(m_limits.servicePause.count()));
    QProcess::execute(
        QStringLiteral("networksetup"),
        {QStringLiteral("-connectpppoeservice"), QStringLiteral("TalvexFreeVPNL2tp")});
    QThread::msleep(static_cast<unsigned long>(m_limits.servicePause.count()));
    return OperationResult::succeeded();
}

OperationResult MacPlatform::turnOffInternet()
{
    switchInterface(QStringLiteral("down"));
    return OperationResult::succeeded();
}

OperationResult MacPlatform::turnOnInternet(bool &done)
{
    done = true;
    switchInterface(QStringLiteral("up"));
    return OperationResult::succeeded();
}

} // namespace vpncore
