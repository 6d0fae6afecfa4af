#include "serviceinterfacemanager.h"

#include "jsonkeys.h"
#include "ovpnconnection.h"

#include <QtCore/QDebug>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTimer>

#include <chrono>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kHeartbeatLimit = 30s;

/// How many commands, of all clients together, may wait inside each other's event loops. Further
/// ones are put off, so that the stack stays bounded.
constexpr int kMostRunningCommands = 64;
constexpr auto kPutOffTime = 100ms;
int runningCommands = 0;
/// Set when there are that many, until all have ended. A command that took the place of each that
/// ends would hold up all those in whose waits it runs, by its own time, over and over.
bool isUnwinding = false;

/// How many commands of one client may wait for their turn.
constexpr int kMostWaitingCommands = 10'000;

/// What the records of all clients' waiting commands may take together, before more than a fair
/// share is too much for one. None that is meant well comes near.
constexpr qint64 kMostRecordBytes = qint64(16) * 1024 * 1024;
constexpr qint64 kFairRecordBytes = qint64(64) * 1024;
qint64 waitingRecordBytes = 0;

qint64 bytesOf(const VpnServerInformation &server)
{
    qint64 characters = 0;
    for (const QString *text :
         {&server.name, &server.info, &server.host, &server.ca, &server.key, &server.cert})
        characters += text->size();
    return characters * qint64(sizeof(QChar));
}

/// What is left to a client for reading one answer, when it has very many to read.
constexpr auto kAnswerTime = 1ms;

const QString kTypeKey = QStringLiteral("type");
const QString kCommandKey = QStringLiteral("cmd");
const QString kArgumentKey = QStringLiteral("arg");
const QString kStatusKey = QStringLiteral("status");

const QLatin1String kOpenvpn("openvpn");
const QLatin1String kConnect("connect");
const QLatin1String kDisconnect("disconnect");
const QLatin1String kOvpnTcp("ovpnTcp");
const QLatin1String kOvpnUdp("ovpnUdp");

} // namespace

ServiceInterfaceManager::ServiceInterfaceManager(QObject *parent)
    : ServiceInterfaceManager(new vpncore::OvpnConnection, parent)
{
    ownConnection.reset(static_cast<vpncore::OvpnConnection *>(ovpnConnection));
}

ServiceInterfaceManager::ServiceInterfaceManager(vpncore::IOvpnConnection *connection,
                                                 QObject *parent)
    : ServiceInterfaceSource(parent)
    , livenessTimer(new QTimer(this))
    , ovpnConnection(connection)
    , commandTimer(new QTimer(this))
{
    // A coarse timer of 30 s may fire half a second early; a client must not lose its tunnel then.
    livenessTimer->setTimerType(Qt::PreciseTimer);
    connect(livenessTimer, &QTimer::timeout, this, &ServiceInterfaceManager::checkHeartbeat);
    commandTimer->setSingleShot(true);
    connect(commandTimer, &QTimer::timeout, this, &ServiceInterfaceManager::runNextCommand);
    qDebug() << "Source Node Started";
}

ServiceInterfaceManager::~ServiceInterfaceManager()
{
    livenessTimer->stop();
    takeWaitingServer();
    if (ownConnection && ownConnection->hasProcess())
        Q_UNUSED(ownConnection.release())
}

void ServiceInterfaceManager::vpn_command(const QString &message,
                                          const VpnServerInformation &vpnServer)
{
    // Called from within the socket's readyRead, which delivers nothing more of this connection
    // until it has returned, and with references that the next packet overwrites. So the command
    // is decoded and copied here, and runs later.
    const Command command = decode(message);
    if (command == Command::None)
        return;
    if (!setWaitingServer(command == Command::Disconnect ? VpnServerInformation() : vpnServer)) {
        answerOvertaken(command);
        return;
    }
    if (waitingCommands.size() >= kMostWaitingCommands)
        answerOvertaken(waitingCommands.dequeue());
    waitingCommands.enqueue(command);
    scheduleNextCommand();
}

/// @return false, and changes nothing, when there is no room for the record.
bool ServiceInterfaceManager::setWaitingServer(const VpnServerInformation &server)
{
    const qint64 size = bytesOf(server);
    const qint64 others = waitingRecordBytes - bytesOf(waitingServer);
    if (size > kFairRecordBytes && others + size > kMostRecordBytes)
        return false;
    waitingRecordBytes = others + size;
    waitingServer = server;
    return true;
}

VpnServerInformation ServiceInterfaceManager::takeWaitingServer()
{
    waitingRecordBytes -= bytesOf(waitingServer);
    return std::exchange(waitingServer, {});
}

void ServiceInterfaceManager::scheduleNextCommand()
{
    if (!commandTimer->isActive())
        commandTimer->start(0ms);
}

void ServiceInterfaceManager::runNextCommand()
{
    if (waitingCommands.isEmpty())
        return;
    if (runningCommand != Command::None) { // and its wait is where this is called from
        endOvertakenAttempt();
        return;
    }
    if (isUnwinding) {
        commandTimer->start(kPutOffTime);
        return;
    }

    ++runningCommands;
    isUnwinding = runningCommands >= kMostRunningCommands;
    runningCommand = waitingCommands.dequeue();
    const bool isOvertaken = !waitingCommands.isEmpty();
    if (runningCommand == Command::Disconnect)
        execute(runningCommand, {});
    else if (isOvertaken)
        answerOvertaken(runningCommand);
    else
        execute(runningCommand, takeWaitingServer());
    runningCommand = Command::None;
    isAttemptEnded = false;
    --runningCommands;
    isUnwinding = isUnwinding && runningCommands > 0;

    // Thousands of answers in one go would be more than a connection holds for its client.
    if (!waitingCommands.isEmpty())
        commandTimer->start(kAnswerTime);
}

void ServiceInterfaceManager::endOvertakenAttempt()
{
    // Once for each attempt: what is left of it ends as soon as its wait returns.
    if (isAttemptEnded || runningCommand == Command::Disconnect)
        return;
    isAttemptEnded = true;
    ovpnConnection->disconnect();
}

void ServiceInterfaceManager::parseVpnCmd(const QString &message,
                                          const VpnServerInformation &vpnServer)
{
    execute(decode(message), vpnServer);
}

ServiceInterfaceManager::Command ServiceInterfaceManager::decode(const QString &message)
{
    const QString type = getJsonValue(kTypeKey, message);
    qDebug() << "Command status " << type;
    if (type == kOpenvpn) {
        const QString cmd = getJsonValue(kCommandKey, message);
        qDebug() << "result params " << cmd;
        if (cmd == kDisconnect)
            return Command::Disconnect;
    } else if (type == kConnect) {
        const QString cmd = getJsonValue(kCommandKey, message);
        qDebug() << "Connect cmd" << cmd;
        if (cmd == kOvpnTcp)
            return Command::ConnectTcp;
        if (cmd == kOvpnUdp)
            return Command::ConnectUdp;
    }
    return Command::None;
}

void ServiceInterfaceManager::execute(Command command, const VpnServerInformation &vpnServer)
{
    switch (command) {
    case Command::None:
        break;
    case Command::Disconnect:
        answer(kDisconnect, ovpnConnection->disconnect());
        break;
    case Command::ConnectTcp:
        answer(kConnect, ovpnConnection->connectTcp(vpnServer));
        break;
    case Command::ConnectUdp:
        answer(kConnect, ovpnConnection->connectUdp(vpnServer));
        break;
    }
}

void ServiceInterfaceManager::answerOvertaken(Command command)
{
    if (command == Command::Disconnect) // whatever overtook it stops the tunnel itself
        answer(kDisconnect, OperationResult::succeeded());
    else
        answer(kConnect, vpncore::OvpnConnection::overtakenResult());
}

void ServiceInterfaceManager::answer(const QString &cmd, const OperationResult &result)
{
    // A nested command's answer resets the flag, so it is set here and not before the command.
    commandHandled = true;
    sendCmd(kOpenvpn, cmd, result);
}

QString ServiceInterfaceManager::getJsonValue(const QString &key, const QString &json)
{
    const QByteArray text = json.toUtf8();
    if (mayRepeatKeyOfContainer(text))
        return {};
    QJsonParseError error;
    const QJsonObject object = QJsonDocument::fromJson(text, &error).object();
    if (error.error != QJsonParseError::NoError)
        return {};
    return object.value(key).toString();
}

void ServiceInterfaceManager::sendCmd(const QString &type, const QString &cmd,
                                      const OperationResult &result)
{
    QJsonObject message;
    if (type == kOpenvpn || type == kConnect || type == kDisconnect) {
        message.insert(kTypeKey, type);
        message.insert(kCommandKey, cmd);
        message.insert(kStatusKey, commandHandled);
    }
    if (type == kOpenvpn)
        message.insert(kArgumentKey, cmd); // the same text again is wanted
    commandHandled = false;

    const QString text = QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
    qDebug() << "Send command service" << text;
    Q_EMIT vpn_cmd_result(text, result);
}

void ServiceInterfaceManager::server_slot(bool clientState)
{
    qDebug() << "Replica state is " << (clientState ? "true" : "false");
    // Moving a deadline costs next to nothing, setting a timer anew a twentieth of the whole call.
    heartbeatDeadline.setRemainingTime(kHeartbeatLimit, Qt::PreciseTimer);
    if (!livenessTimer->isActive())
        livenessTimer->start(kHeartbeatLimit);
}

void ServiceInterfaceManager::checkHeartbeat()
{
    if (heartbeatDeadline.hasExpired())
        timeout_slot();
    else
        livenessTimer->start(static_cast<int>(heartbeatDeadline.remainingTime()));
}

void ServiceInterfaceManager::timeout_slot()
{
    qDebug() << "Client was disconnected";
    ovpnConnection->disconnect();
    // Not before: that a heartbeat which comes during the disconnect does not count is wanted.
    livenessTimer->stop();
}
