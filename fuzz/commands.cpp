/// A client's command, JSON: whatever it says, at most one operation and one answer come of it,
/// and only of the three texts that are commands.

#include "fuzzsupport.h"
#include "iovpnconnection.h"
#include "serviceinterfacemanager.h"

#include <QtCore/QStringList>

namespace {

class NotingConnection : public vpncore::IOvpnConnection
{
public:
    OperationResult connectUdp(const VpnServerInformation &) override { return note("ovpnUdp"); }
    OperationResult connectTcp(const VpnServerInformation &) override { return note("ovpnTcp"); }
    OperationResult disconnect() override { return note("disconnect"); }

    QStringList calls;

private:
    OperationResult note(const char *call)
    {
        calls.append(QLatin1String(call));
        return OperationResult::succeeded();
    }
};

} // namespace

void fuzz::run(const QByteArray &input)
{
    const QString message = QString::fromUtf8(input);
    NotingConnection connection;
    ServiceInterfaceManager manager(&connection, QSharedPointer<CommandTotals>::create(), 0,
                                    ServiceInterfaceManager::kHeartbeatLimit, nullptr);
    QStringList answers;
    QObject::connect(&manager, &ServiceInterfaceManager::vpn_cmd_result,
                     [&answers](const QString &text) { answers.append(text); });
    manager.parseVpnCmd(message, {});

    const QString type = manager.getJsonValue(QStringLiteral("type"), message);
    const QString command = manager.getJsonValue(QStringLiteral("cmd"), message);
    const bool isDisconnect =
        type == QLatin1String("openvpn") && command == QLatin1String("disconnect");
    const bool isConnect = type == QLatin1String("connect")
        && (command == QLatin1String("ovpnUdp") || command == QLatin1String("ovpnTcp"));
    if (connection.calls != (isConnect || isDisconnect ? QStringList(command) : QStringList()))
        fail("not the operation that was asked for");
    if (answers.size() != connection.calls.size())
        fail("not one answer for a command");
    if (!answers.isEmpty() && !answers.first().contains(QLatin1String("\"status\":true")))
        fail("an answer without its status");
}
