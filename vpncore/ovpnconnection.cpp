#include "ovpnconnection.h"

#include "descriptorbudget.h"
#include "dnsrestorer.h"
#include "eventwait.h"
#include "macplatform.h"
#include "openvpnoutput.h"
#include "ovpntemplate.h"
#include "serverfields.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryFile>

#include <algorithm>
#include <chrono>

#include <unistd.h>

namespace vpncore {

namespace {

/// How much of what `openvpn` prints outside of an attempt is kept for the log of its end. A server
/// can make it print a line for every packet, for months.
constexpr qint64 kMaxUnreadOutput = qint64(256) * 1024;

const char kCannotCreateConfig[] = "label.can_not_create_config_for_open_vpn";
const char kCannotStart[] = "warning.open_vpn_running_fails_check_apps";
const char kDoesNotExist[] = "warning.open_vpn_does_not_exists_try_another_protocol";
const char kTimeOut[] = "warning.open_vpn_connection_time_out";
const char kNoResponse[] = "warning.open_vpn_server_does_not_respond";
const char kAttemptFailed[] = "warning.can_not_open_vpn_check_is_admin_granted";

OperationResult failure(const char *key)
{
    return OperationResult::failed(QObject::tr(key));
}

OperationResult timeOut(const QString &protocolName)
{
    // The key itself has no place for the protocol's name, a translation may. Qt's warning about
    // the missing place is wanted along with it.
    return OperationResult::failed(QObject::tr(kTimeOut).arg(protocolName));
}

/// @return @p text, or nothing when it does not fit where it is to stand.
QString keptIf(bool fits, const QString &text, const char *name)
{
    if (fits)
        return text;
    qWarning() << "Left out of the configuration, since it could be read as something else:"
               << name;
    return {};
}

QString keptInBlock(const QString &text, const char *tag)
{
    return keptIf(fitsInlineBlock(text, QLatin1String(tag)), text, tag);
}

/// What older configurations say, put in the words that OpenVPN takes today. The text becomes
/// Latin-1 on the way, which is wanted: other characters turn into question marks, and a zero
/// character ends it.
QString compatibleConfigText(const QString &configText)
{
    QString text = QString::fromLatin1(configText.toLatin1().constData());
    const QLatin1String silent("verb 0");
    if (text.contains(silent)) {
        text.replace(silent, QLatin1String("verb 1"));
        qDebug() << "replace verb 1";
    }
    const QLatin1String oldCompression("compress lzo");
    if (text.contains(oldCompression)) {
        text.replace(oldCompression, QLatin1String("comp-lzo"));
        qDebug() << "replace comp-lzo";
    }
    return text;
}

/// A disk that is full is noticed here, and not by an `openvpn` that reads half a configuration.
bool write(QFile &file, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    const bool isWritten = file.write(bytes) == bytes.size() && file.flush();
    file.close();
    return isWritten;
}

} // namespace

OperationResult OvpnConnection::overtakenResult()
{
    return failure(kAttemptFailed);
}

OperationResult OvpnConnection::cannotStartResult()
{
    return failure(kCannotStart);
}

OvpnConnection::OvpnConnection(const OvpnLimits &chosenLimits)
    : limits(chosenLimits)
{
}

OvpnConnection::~OvpnConnection()
{
    OvpnConnection::disconnect();
}

OperationResult OvpnConnection::connectUdp(const VpnServerInformation &server)
{
    return connect(server, Udp);
}

OperationResult OvpnConnection::connectTcp(const VpnServerInformation &server)
{
    return connect(server, Tcp);
}

OperationResult OvpnConnection::connect(const VpnServerInformation &server,
                                        ConnectionType connectionType)
{
    QString configText;
    generateConfigText(connectionType, server, configText);
    return connect(configText, generateConnectionTypeString(connectionType));
}

OperationResult OvpnConnection::connect(const QString &configText, const QString &protocolName)
{
    OperationResult result = forceConnect(configText, protocolName);
    deleteConfigFile();
    dropExcessOutput();
    if (result.success)
        watchTunnel();
    return result;
}

OperationResult OvpnConnection::forceConnect(const QString &configText, const QString &protocolName)
{
    const QDeadlineTimer request(limits.request);
    bool retry = false;
    do {
        const Operation operation{newestOperation, newestOperation + 1};
        OperationResult result = tryConnectOneTime(configText, protocolName, retry);
        if (result.success || operation.isOvertaken())
            return result;
        if (request.hasExpired())
            break;
        if (!retry)
            return result;
    } while (true);

    qDebug() << "Connecting timeout, stop processing";
    disconnect();
    return timeOut(protocolName);
}

OperationResult OvpnConnection::tryConnectOneTime(const QString &configText,
                                                  const QString &protocolName, bool &retry)
{
    retry = false;
    qDebug() << "\r\n----------------- New Connection -----------------\r\n";

    const Operation operation{newestOperation, newestOperation + 1};
    disconnect();
    if (operation.isOvertaken())
        return overtakenResult();

    const QString text = compatibleConfigText(configText);
    QTemporaryFile configFile;
    if (!configFile.open())
        return failure(kCannotCreateConfig);
    if (!leavesTunnelReserve(configFile.handle()))
        return failure(kCannotStart);
    configFileName = configFile.fileName();
    if (!write(configFile, text))
        return failure(kCannotCreateConfig);

    startOpenvpn();
    if (process->error() == QProcess::FailedToStart)
        return cannotStartResult();

    const QDeadlineTimer attempt(limits.attempt);
    const QDeadlineTimer firstOutput(limits.firstOutput);
    OpenvpnOutput output;
    // Read at once, also while other operations run inside the waits, so that it never piles up.
    const QObject attemptScope;
    QObject::connect(process.get(), &QProcess::readyRead, &attemptScope,
                     [&] { output.add(process->readAllStandardOutput()); });
    bool outputSeen = false;
    while (true) {
        if (process->error() == QProcess::FailedToStart)
            return failure(kDoesNotExist);
        if (attempt.hasExpired())
            return timeOut(protocolName);
        if (!outputSeen && firstOutput.hasExpired())
            return failure(kNoResponse);

        const QProcess::ProcessState state = process->state();
        qDebug() << "openvpn state: " << state;
        if (state == QProcess::NotRunning) {
            retry = true;
            return failure(kAttemptFailed);
        }

        // A pass takes its whole time, unless the success that the client waits for has arrived.
        waitUntil(limits.poll, [&] {
            return operation.isOvertaken()
                || analyseProcessOutput(output.judgedText()) == Connected;
        });
        if (operation.isOvertaken())
            return overtakenResult();

        output.add(process->readAllStandardOutput());
        const QString chunk = output.endPass();
        qDebug() << "outputString: " << chunk;
        // Normally empty. What arrived since the last read is logged only, and that is wanted.
        qDebug() << "readAll: " << process->readAll();
        if (chunk.isEmpty())
            continue;

        switch (analyseProcessOutput(output.judgedText())) {
        case Connected:
            return OperationResult::succeeded();
        case Failed:
            return failure(kAttemptFailed);
        default:
            outputSeen = true;
        }
    }
}

void OvpnConnection::startOpenvpn()
{
    const QString program = QCoreApplication::applicationDirPath() + QStringLiteral("/openvpn");
    const QString command =
        QLatin1Char('"') + program + QStringLiteral("\" --config \"%1\"").arg(configFileName);
    qDebug() << program << command;

    process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    const QStringList words = QProcess::splitCommand(command);
    process->start(words.value(0), words.mid(1));
    // Until the start is decided, error() knows nothing of a program that is missing.
    if (process->waitForStarted(static_cast<int>(limits.start.count())))
        DnsRestorer::instance().pauseWhileRunning(*process);
}

OperationResult OvpnConnection::disconnect()
{
    const Operation operation{newestOperation, ++newestOperation};
    deleteConfigFile();
    if (!process)
        return OperationResult::succeeded();

    const auto isStopped = [this, &operation] {
        if (operation.isOvertaken() || isEnded())
            return true;
        logOutput();
        return false;
    };
    process->terminate();
    waitUntil(limits.terminate, isStopped);
    if (!operation.isOvertaken())
        process->kill();
    waitUntil(QDeadlineTimer::Forever, isStopped);
    if (operation.isOvertaken()) // and the newer one has done, for the same process, what follows
        return OperationResult::succeeded();

    DnsRestorer::instance().restore();
    process.reset();
    return OperationResult::succeeded();
}

bool OvpnConnection::isEnded() const
{
    return process->state() == QProcess::NotRunning;
}

void OvpnConnection::logOutput()
{
    const QByteArray output = process->readAll();
    if (!output.isEmpty())
        qDebug() << output;
}

void OvpnConnection::watchTunnel()
{
    const auto giveBack = [operation = Operation{newestOperation, newestOperation}] {
        if (operation.isOvertaken()) // by a disconnect, which gives them back itself
            return;
        qDebug() << "The tunnel has ended by itself, the DNS settings are given back";
        DnsRestorer::instance().restore();
    };
    QObject::connect(process.get(), qOverload<int, QProcess::ExitStatus>(&QProcess::finished),
                     giveBack);
    if (isEnded())
        giveBack();
}

void OvpnConnection::dropExcessOutput()
{
    if (!process)
        return;
    QObject::connect(process.get(), &QProcess::readyRead, [source = process.get()] {
        source->skip(std::max<qint64>(source->bytesAvailable() - kMaxUnreadOutput, 0));
    });
}

int OvpnConnection::analyseProcessOutput(const QString &output)
{
    if (output.contains(QLatin1String(kSuccessMarker)))
        return Connected;
    const bool hasError = output.contains(QLatin1String(kRetryMarker))
        || output.contains(QLatin1String(kErrorMarker));
    // A failing IPv6 route or address excuses every error of the attempt, later ones included.
    // That is wanted: the time limits end such an attempt.
    if (!hasError || output.contains(QLatin1String(kIpv6Marker)))
        return Undecided;
    return Failed;
}

OperationResult OvpnConnection::generateConfigText(ConnectionType &connectionType,
                                                   const VpnServerInformation &server,
                                                   QString &configText)
{
    // Two different tests are wanted: a type that is neither means UDP with the TCP port.
    const int port = connectionType == Udp ? server.udpPort : server.tcpPort;
    const QString protocol = connectionType == Tcp ? QStringLiteral("tcp") : QStringLiteral("udp");
    const QString host = keptIf(fitsRemoteLine(server.host, port), server.host, "host");
    const QString ca = keptInBlock(server.ca, "ca");
    const QString cert = keptInBlock(server.cert, "cert");
    const QString key = keptInBlock(server.key, "key");
    // All in one pass, so that no inserted text is searched for places to fill.
    configText = ovpnTemplate().arg(protocol, host, ca, cert, key, QString::number(port),
                                    MacPlatform::resourcesDir());
    return OperationResult::succeeded();
}

QString OvpnConnection::generateConnectionTypeString(ConnectionType connectionType)
{
    return connectionType == Tcp ? QStringLiteral("TCP") : QStringLiteral("UDP");
}

void OvpnConnection::correctConnectionTypeInConfigText(QString &configText,
                                                       ConnectionType connectionType)
{
    const QLatin1String udp("proto udp");
    const QLatin1String tcp("proto tcp");
    if (connectionType == Tcp && configText.contains(udp)) {
        qDebug() << "TCP";
        configText.replace(udp, tcp);
    } else if (connectionType == Udp && configText.contains(tcp)) {
        qDebug() << "UDP";
        configText.replace(tcp, udp);
    }
}

void OvpnConnection::removeLeftConfigFiles()
{
    // The names that QTemporaryFile makes by default.
    const QString names = QCoreApplication::applicationName() + QStringLiteral(".??????");
    const auto files = QDir::temp().entryInfoList(
        {names}, QDir::Files | QDir::Hidden | QDir::System | QDir::NoSymLinks);
    for (const QFileInfo &file : files) {
        if (file.ownerId() == ::geteuid())
            QFile::remove(file.filePath());
    }
}

void OvpnConnection::deleteConfigFile()
{
    if (configFileName.isEmpty())
        return;
    QFile::remove(configFileName);
    configFileName.clear();
}

} // namespace vpncore
