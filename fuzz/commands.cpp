/// A client's command, JSON: whatever it says, at most one operation and one answer come of it,
/// and only of the three texts that are commands.

#include "fuzzsupport.h"
#include "iovpnconnection.h"
#include "serviceinterfacemanager.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace {

class CountingConnection : public vpncore::IOvpnConnection
{
public:
    OperationResult connectUdp(const VpnServerInformation &) override { return count(m_udp); }
    OperationResult connectTcp(const VpnServerInformation &) override { return count(m_tcp); }
    OperationResult disconnect() override { return count(m_disconnect); }

    int udp() const { return m_udp; }
    int tcp() const { return m_tcp; }
    int disconnects() const { return m_disconnect; }

private:
    static OperationResult count(int &counter)
    {
        ++counter;
        return OperationResult::succeeded();
    }

    int m_udp = 0;
    int m_tcp = 0;
    int m_disconnect = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::prepare();
    fuzz::Input input(data, size);
    const QString message = QString::fromUtf8(input.rest());

    CountingConnection connection;
    ServiceInterfaceManager manager(&connection, QSharedPointer<CommandTotals>::create(), 0,
                                    ServiceInterfaceManager::kHeartbeatLimit, nullptr);
    int answers = 0;
    QObject::connect(&manager, &ServiceInterfaceManager::vpn_cmd_result,
                     [&answers](const QString &text, const OperationResult &) {
                         ++answers;
                         const QJsonObject answer = QJsonDocument::fromJson(text.toUtf8()).object();
                         if (!answer.value(QStringLiteral("status")).toBool())
                             fuzz::fail("an answer without its status");
                     });
    manager.parseVpnCmd(message, {});

    const QString type = manager.getJsonValue(QStringLiteral("type"), message);
    const QString command = manager.getJsonValue(QStringLiteral("cmd"), message);
    const bool isDisconnect =
        type == QLatin1String("openvpn") && command == QLatin1String("disconnect");
    const bool isUdp = type == QLatin1String("connect") && command == QLatin1String("ovpnUdp");
    const bool isTcp = type == QLatin1String("connect") && command == QLatin1String("ovpnTcp");
    if (connection.disconnects() != int(isDisconnect) || connection.udp() != int(isUdp)
        || connection.tcp() != int(isTcp))
        fuzz::fail("not the operation that was asked for");
    if (answers != int(isDisconnect || isUdp || isTcp))
        fuzz::fail("not one answer for a command");
    return 0;
}
