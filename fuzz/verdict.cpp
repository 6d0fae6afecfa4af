/// The verdict on openvpn's output: success beats everything, and more output never takes back a
/// success nor an excuse.

#include "fuzzsupport.h"
#include "ovpnconnection.h"

using vpncore::OvpnConnection;

namespace {

int expectedVerdict(const std::string &output)
{
    const auto has = [&output](const char *text) { return output.find(text) != std::string::npos; };
    if (has("Initialization Sequence Completed"))
        return OvpnConnection::Connected;
    if (has("ipv6 command failed"))
        return OvpnConnection::Undecided;
    return has("ERROR") || has("failed, will try again in") ? OvpnConnection::Failed
                                                            : OvpnConnection::Undecided;
}

} // namespace

void fuzz::run(const QByteArray &output)
{
    OvpnConnection connection;
    const QString text = QString::fromLatin1(output.constData(), output.size());
    const int verdict = connection.analyseProcessOutput(text);
    if (verdict != expectedVerdict(output.toStdString()))
        fail("not the verdict that the texts call for");
    const QString half = text.left(text.size() / 2);
    if (connection.analyseProcessOutput(half) == OvpnConnection::Connected
        && verdict != OvpnConnection::Connected)
        fail("more output took a success back");
}
