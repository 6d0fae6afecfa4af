#include "serviceinterfacemanager.h"

#include "jsonleak.h"
#include "ovpnconnection.h"

#include <QtCore/QDebug>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTimer>

#include <vector>

namespace {

const QString kTypeKey = QStringLiteral("type");
const QString kCommandKey = QStringLiteral("cmd");
const QString kArgumentKey = QStringLiteral("arg");
const QString kStatusKey = QStringLiteral("status");

const QLatin1String kOpenvpn("openvpn");
const QLatin1String kConnect("connect");
const QLatin1String kDisconnect("disconnect");
const QLatin1String kOvpnTcp("ovpnTcp");
const QLatin1String kOvpnUdp("ovpnUdp");

/// Keeps a connection whose tunnel stays up without its manager, until the process ends.
void keepTunnel(std::unique_ptr<vpncore::OvpnConnection> connection)
{
    // Never destroyed, since that would end the tunnels in it.
    static auto *const tunnels = new std::vector<std::unique_ptr<vpncore::OvpnConnection>>;
    tunnels->push_back(std::move(connection));
}

} // namespace

ServiceInterfaceManager::ServiceInterfaceManager(const QSharedPointer<CommandTotals> &totals,
                                                 quint32 user, QObject *parent)
    : ServiceInterfaceManager(nullptr, totals, user, kHeartbeatLimit, parent)
{
    ownConnection = std::make_unique<vpncore::OvpnConnection>();
    ovpnConnection = ownConnection.get();
}

ServiceInterfaceManager::ServiceInterfaceManager(vpncore::IOvpnConnection *connection,
                                                 const QSharedPointer<CommandTotals> &totals,
                                                 quint32 user, std::chrono::milliseconds limit,
                                                 QObject *parent)
    : ServiceInterfaceSource(parent)
    , livenessTimer(new QTimer(this))
    , ovpnConnection(connection)
    , heartbeatLimit(limit)
    , queue(
          totals, user, [this] { return ownConnection && ownConnection->isRunning(); }, this)
{
    // A coarse timer of 30 s may fire half a second early; a client must not lose its tunnel then.
    livenessTimer->setTimerType(Qt::PreciseTimer);
    connect(livenessTimer, &QTimer::timeout, this, &ServiceInterfaceManager::timeout_slot);
    connect(&queue, &CommandQueue::due, this, &ServiceInterfaceManager::execute);
    connect(&queue, &CommandQueue::overtaken, this, &ServiceInterfaceManager::answerOvertaken);
    connect(&queue, &CommandQueue::refused, this,
            [this] { answer(kConnect, vpncore::OvpnConnection::cannotStartResult()); });
    connect(&queue, &CommandQueue::attemptOvertaken, this,
            [this] { ovpnConnection->disconnect(); });
    qDebug() << "Source Node Started";
}

ServiceInterfaceManager::~ServiceInterfaceManager()
{
    livenessTimer->stop();
    if (ownConnection && ownConnection->hasProcess())
        keepTunnel(std::move(ownConnection));
}

void ServiceInterfaceManager::vpn_command(const QString &message,
                                          const VpnServerInformation &vpnServer)
{
    // Called from within the socket's readyRead, which delivers nothing more of this connection
    // until it has returned, and with references that the next packet overwrites. So the command
    // is decoded and copied here, and runs later.
    const Command command = decode(message);
    if (command != Command::None)
        queue.add(command, vpnServer);
}

void ServiceInterfaceManager::parseVpnCmd(const QString &message,
                                          const VpnServerInformation &vpnServer)
{
    execute(decode(message), vpnServer);
}

Command ServiceInterfaceManager::decode(const QString &message)
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
    if (losesMemory(text))
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
    livenessTimer->stop();
    livenessTimer->start(heartbeatLimit);
}

void ServiceInterfaceManager::timeout_slot()
{
    qDebug() << "Client was disconnected";
    // Otherwise a connect that waits behind a slow disconnect would bring up a tunnel that nobody
    // watches.
    queue.overtakeWaiting();
    ovpnConnection->disconnect();
    // Not before: a heartbeat that comes during the disconnect does not count. That is wanted.
    livenessTimer->stop();
}
