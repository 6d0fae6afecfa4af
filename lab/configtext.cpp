#include "configtext.h"

#include "macplatform.h"
#include "openvpnparser.h"
#include "ovpntemplate.h"

using openvpnparser::Directive;
using vpncore::OvpnConnection;

namespace configtext {

namespace {

int portOf(OvpnConnection::ConnectionType type, const VpnServerInformation &server)
{
    return type == OvpnConnection::Udp ? server.udpPort : server.tcpPort;
}

QString protocolOf(OvpnConnection::ConnectionType type)
{
    return type == OvpnConnection::Tcp ? QStringLiteral("tcp") : QStringLiteral("udp");
}

Directive line(const QByteArrayList &words)
{
    Directive directive;
    directive.words = words;
    return directive;
}

Directive block(const QByteArray &tag, const QByteArray &content)
{
    Directive directive;
    directive.words = {tag};
    directive.isBlock = true;
    directive.block = content + '\n';
    return directive;
}

/// What the template says, in OpenVPN's words. Written out, so that a line that slips into the
/// template is noticed, too.
QVector<Directive> expectedDirectives(OvpnConnection::ConnectionType type,
                                      const VpnServerInformation &server)
{
    const QByteArray folder = written(vpncore::MacPlatform::resourcesDir());
    // As one text, because the driver replaces words over the blank between the two.
    const QByteArray hostAndPort =
        written(QStringLiteral("%1 %2").arg(server.host, QString::number(portOf(type, server))));
    const int blank = hostAndPort.lastIndexOf(' ');
    QByteArrayList remote{"remote", hostAndPort.left(blank), hostAndPort.mid(blank + 1)};
    remote.removeAll({});
    return {line({"client"}),
            line({"dev", "tun"}),
            line({"proto", protocolOf(type).toLatin1()}),
            line(remote),
            line({"resolv-retry", "infinite"}),
            line({"nobind"}),
            line({"persist-key"}),
            line({"persist-tun"}),
            line({"remote-cert-tls", "server"}),
            line({"comp-lzo"}),
            line({"verb", "1"}),
            line({"tun-mtu", "1500"}),
            line({"tun-mtu-extra", "32"}),
            line({"mssfix", "1450"}),
            line({"ping", "15"}),
            line({"ping-restart", "0"}),
            line({"ping-timer-rem"}),
            line({"reneg-sec", "0"}),
            line({"pull"}),
            line({"fast-io"}),
            line({"cipher", "AES-256-CBC"}),
            line({"script-security", "2"}),
            line({"up", '\'' + folder + "/update_conf_up'"}),
            line({"down", '\'' + folder + "/update_conf_down'"}),
            block("ca", written(server.ca)),
            block("cert", written(server.cert)),
            block("key", written(server.key))};
}

/// A field may be left out, as a whole.
void leaveOutWhatWasLeftOut(VpnServerInformation &server, const QVector<Directive> &found)
{
    for (const Directive &directive : found) {
        const QByteArray name = directive.words.first();
        if (name == "remote" && directive.words.size() == 2)
            server.host.clear();
        if (!directive.isBlock || directive.block != "\n")
            continue;
        if (name == "ca")
            server.ca.clear();
        else if (name == "cert")
            server.cert.clear();
        else if (name == "key")
            server.key.clear();
    }
}

} // namespace

QString generated(OvpnConnection::ConnectionType type, const VpnServerInformation &server)
{
    QString text;
    OvpnConnection().generateConfigText(type, server, text);
    return text;
}

QString unchecked(OvpnConnection::ConnectionType type, const VpnServerInformation &server)
{
    return vpncore::ovpnTemplate()
        .arg(protocolOf(type), server.host, server.ca, server.cert, server.key)
        .arg(portOf(type, server))
        .arg(vpncore::MacPlatform::resourcesDir());
}

QByteArray written(const QString &configText)
{
    QString text = QString::fromLatin1(configText.toLatin1().constData());
    text.replace(QStringLiteral("verb 0"), QStringLiteral("verb 1"));
    text.replace(QStringLiteral("compress lzo"), QStringLiteral("comp-lzo"));
    return text.toUtf8();
}

QByteArray problem(OvpnConnection::ConnectionType type, const VpnServerInformation &server,
                   const QByteArray &file)
{
    const QVector<Directive> found = openvpnparser::parse(file);
    VpnServerInformation inserted = server;
    leaveOutWhatWasLeftOut(inserted, found);
    const QVector<Directive> expected = expectedDirectives(type, inserted);
    if (found == expected)
        return {};
    return "expected\n" + openvpnparser::toText(expected) + "but found\n"
        + openvpnparser::toText(found);
}

} // namespace configtext
