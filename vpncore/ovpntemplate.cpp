#include "ovpntemplate.h"

namespace vpncore {

// The trailing blanks of the first two lines are wanted. The quotes around the scripts' paths
// are for OpenVPN (double) and for the shell-like splitting it does afterwards (single).
QString ovpnTemplate()
{
    return QStringLiteral(R"TEMPLATE(client 
dev tun 
proto %1
remote %2 %6
resolv-retry infinite
nobind
persist-key
persist-tun
remote-cert-tls server
comp-lzo
verb 1
tun-mtu 1500
tun-mtu-extra 32
mssfix 1450
ping 15
ping-restart 0
ping-timer-rem
reneg-sec 0
pull
fast-io
cipher AES-256-CBC
script-security 2
up "'%7/update_conf_up'"
down "'%7/update_conf_down'"

<ca>
%3
</ca>

<cert>
%4
</cert>

<key>
%5
</key>
)TEMPLATE");
}

} // namespace vpncore
