#include "vpnlab.h"

#include "files.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>

namespace {

constexpr int kLimitMs = 60'000;

const QLatin1String kFolder("/tmp/lab");

bool run(const QString &verb)
{
    QProcess lab;
    lab.setProcessChannelMode(QProcess::ForwardedChannels);
    lab.start(QStringLiteral(TALVEX_VPN_LAB), {verb, kFolder});
    return lab.waitForFinished(kLimitMs) && lab.exitCode() == 0;
}

} // namespace

namespace vpnlab {

bool up()
{
    return run(QStringLiteral("up"));
}

bool down()
{
    return run(QStringLiteral("down"));
}

VpnServerInformation server()
{
    const QJsonObject record =
        QJsonDocument::fromJson(lab::contentOf(kFolder + QStringLiteral("/record.json"))).object();
    const auto textOf = [&record](const QString &field) {
        return QString::fromUtf8(lab::contentOf(record.value(field).toString()));
    };
    VpnServerInformation server;
    server.host = record.value(QStringLiteral("host")).toString();
    server.ca = textOf(QStringLiteral("ca"));
    server.cert = textOf(QStringLiteral("cert"));
    server.key = textOf(QStringLiteral("key"));
    server.udpPort = record.value(QStringLiteral("udpPort")).toInt();
    server.tcpPort = record.value(QStringLiteral("tcpPort")).toInt();
    return server;
}

} // namespace vpnlab
