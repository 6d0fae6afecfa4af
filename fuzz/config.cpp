/// The configuration for a record, read as OpenVPN reads it: the template's directives and no
/// other, whatever the record holds.
///
/// Input: transport (1 byte), port (4 bytes), then host, ca, cert and key in UTF-8, each ended by a
/// zero byte. In the texts, the two bytes ff 00 stand for a zero character.

#include "configtext.h"
#include "fuzzsupport.h"

namespace {

QString text(fuzz::Input &input)
{
    QByteArray bytes = input.upToNul();
    while (bytes.endsWith('\xff')) {
        bytes.chop(1);
        const QByteArray more = input.upToNul();
        bytes += '\1' + more;
    }
    return QString::fromUtf8(bytes).replace(QChar(1), QChar(0));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::prepare();
    fuzz::Input input(data, size);
    const auto type =
        input.byte() % 2 == 0 ? vpncore::OvpnConnection::Tcp : vpncore::OvpnConnection::Udp;
    VpnServerInformation server;
    server.udpPort = server.tcpPort = input.number();
    server.host = text(input);
    server.ca = text(input);
    server.cert = text(input);
    server.key = text(input);

    const QByteArray file = configtext::written(configtext::generated(type, server));
    const QByteArray problem = configtext::problem(type, server, file);
    if (!problem.isEmpty())
        fuzz::fail("a record got something else into the configuration", problem);
    return 0;
}
