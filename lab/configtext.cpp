#include "configtext.h"

#include "macplatform.h"
#include "ovpntemplate.h"
#include "serverfields.h"

#include <algorithm>

using vpncore::OvpnConnection;

namespace configtext {

namespace {

/// OpenVPN reads within inline blocks in pieces of so many bytes, each of which counts as a line.
/// Elsewhere it refuses a line that is longer, its line feed included.
constexpr int kPieceBytes = 255;

int portOf(OvpnConnection::ConnectionType type, const VpnServerInformation &server)
{
    return type == OvpnConnection::Udp ? server.udpPort : server.tcpPort;
}

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool startsWithTag(const QByteArray &piece, const QByteArray &tag)
{
    const auto *start = std::find_if_not(piece.begin(), piece.end(), isSpace);
    return piece.mid(static_cast<int>(start - piece.begin())).startsWith(tag);
}

bool isOneWord(const QByteArray &host)
{
    return std::none_of(host.begin(), host.end(), [](char c) {
        return isSpace(c) || (c >= '\0' && c < ' ') || QByteArray("\"'\\#;").contains(c);
    });
}

/// The record as it may go into the configuration: each field whole, or left out.
VpnServerInformation withoutHostileFields(VpnServerInformation server, int port)
{
    if (!vpncore::fitsRemoteLine(server.host, port))
        server.host.clear();
    if (!vpncore::fitsInlineBlock(server.ca, QLatin1String("ca")))
        server.ca.clear();
    if (!vpncore::fitsInlineBlock(server.cert, QLatin1String("cert")))
        server.cert.clear();
    if (!vpncore::fitsInlineBlock(server.key, QLatin1String("key")))
        server.key.clear();
    return server;
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
    return vpncore::ovpnTemplate().arg(
        type == OvpnConnection::Tcp ? QStringLiteral("tcp") : QStringLiteral("udp"), server.host,
        server.ca, server.cert, server.key, QString::number(portOf(type, server)),
        vpncore::MacPlatform::resourcesDir());
}

QByteArray written(const QString &configText)
{
    QString text = QString::fromLatin1(configText.toLatin1().constData());
    text.replace(QStringLiteral("verb 0"), QStringLiteral("verb 1"));
    text.replace(QStringLiteral("compress lzo"), QStringLiteral("comp-lzo"));
    return text.toUtf8();
}

QByteArrayList directives(const QByteArray &file)
{
    QByteArrayList found;
    QByteArray closingTag; // of the block that is open
    const QByteArrayList lines = QByteArray(file.constData()).split('\n'); // up to a zero byte
    for (QByteArray line : lines) {
        while (!closingTag.isEmpty() && !line.isEmpty()) {
            if (startsWithTag(line.left(kPieceBytes), closingTag))
                closingTag.clear();
            line.remove(0, kPieceBytes);
        }
        if (line.size() >= kPieceBytes)
            return found << "unreadable: " + line;
        line = line.trimmed();
        if (!closingTag.isEmpty() || line.isEmpty() || line.startsWith('#') || line.startsWith(';'))
            continue;
        found.append(line);
        if (line.startsWith('<') && line.endsWith('>'))
            closingTag = "</" + line.mid(1);
    }
    return found;
}

QByteArray problem(OvpnConnection::ConnectionType type, const VpnServerInformation &server,
                   const QByteArray &file)
{
    const int port = portOf(type, server);
    const VpnServerInformation kept = withoutHostileFields(server, port);
    if (file != written(unchecked(type, kept)))
        return "not the template with the fields that fit:\n" + file;
    if (!isOneWord(written(kept.host)))
        return "a host of several words: " + written(kept.host);

    VpnServerInformation nothing;
    nothing.udpPort = nothing.tcpPort = port;
    QByteArrayList expected = directives(written(unchecked(type, nothing)));
    expected[3] = written(QStringLiteral("remote %1 %2").arg(kept.host, QString::number(port)));
    const QByteArrayList found = directives(file);
    return found == expected ? QByteArray() : "other directives:\n" + found.join('\n');
}

} // namespace configtext
