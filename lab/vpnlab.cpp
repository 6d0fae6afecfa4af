#include "vpnlab.h"

#include "files.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>

namespace vpnlab {

bool up()
{
    return QProcess::execute(TALVEX_VPN_LAB, {}) == 0;
}

VpnServerInformation server()
{
    const QJsonObject record =
        QJsonDocument::fromJson(lab::contentOf("/run/vpn-lab/record.json")).object();
    const auto textOf = [&record](const QString &field) {
        return QString::fromUtf8(lab::contentOf(record.value(field).toString()));
    };
    VpnServerInformation server;
    server.host = record.value("host").toString();
    server.ca = textOf("ca");
    server.cert = textOf("cert");
    server.key = textOf("key");
    server.udpPort = record.value("udpPort").toInt();
    server.tcpPort = record.value("tcpPort").toInt();
    return server;
}

} // namespace vpnlab
