/// The configuration for a record, read as OpenVPN reads it: the template's directives and no
/// other, whatever the record holds.
///
/// Input: transport (1 byte), port (4 bytes), then host, ca, cert and key in UTF-8, each ended by a
/// zero byte. In the texts, the two bytes ff 00 stand for a zero character.

#include "configtext.h"
#include "fuzzsupport.h"

void fuzz::run(const QByteArray &input)
{
    quint8 transport = 0;
    VpnServerInformation server;
    QDataStream stream(input);
    stream >> transport >> server.udpPort;
    server.tcpPort = server.udpPort;
    const auto type =
        transport % 2 == 0 ? vpncore::OvpnConnection::Tcp : vpncore::OvpnConnection::Udp;
    QByteArray texts = input.mid(5);
    const QByteArrayList fields = texts.replace(QByteArray("\xff\0", 2), "\1").split('\0');
    const auto text = [&fields](int n) {
        return QString::fromUtf8(fields.value(n)).replace(QChar(1), QChar(0));
    };
    server.host = text(0);
    server.ca = text(1);
    server.cert = text(2);
    server.key = text(3);

    const QByteArray file = configtext::written(configtext::generated(type, server));
    const QByteArray problem = configtext::problem(type, server, file);
    if (!problem.isEmpty())
        fail("a record got something else into the configuration", problem);
}
