#include "inputfile.h"
#include "report.h"
#include "target.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>

namespace vpnctl {

namespace {

/// What the daemon's own configuration has too, though with another value it would matter.
const char kSameInDaemon[] =
    "comp-lzo|cipher AES-256-CBC|dev-type tun|mssfix 1450|ping 15|ping-restart 0|"
    "remote-cert-tls server|reneg-sec 0|tun-mtu 1500|tun-mtu-extra 32";

/// What changes nothing that the user could miss, whatever its value.
const char kHarmless[] =
    "auth-nocache auth-retry client connect-retry connect-retry-max connect-timeout daemon "
    "explicit-exit-notify fast-io float hand-window ignore-unknown-option key-direction log "
    "log-append machine-readable-output mute mute-replay-warnings nice nobind persist-key "
    "persist-tun ping-timer-rem pull push-peer-info rcvbuf remote-random resolv-retry "
    "route-delay route-method script-security server-poll-timeout setenv sndbuf status "
    "suppress-timestamps tls-client tls-timeout topology verb writepid";

const Weaknesses kProtections = {
    {"verify-x509-name tls-remote",
     "The server's name is not checked: every server certificate of the authority is accepted."},
    {"remote-cert-tls remote-cert-eku remote-cert-ku ns-cert-type",
     "The server's certificate is only checked to be one for servers."},
    {"peer-fingerprint verify-hash",
     "The server's certificate is not compared with a fingerprint."},
    {"crl-verify", "Certificates that the authority has revoked are accepted."},
    {"tls-verify", "No script checks the server's certificate."},
    {"tls-auth tls-crypt tls-crypt-v2",
     "The control channel has no key of its own. A server that expects one does not answer."},
    {"tls-version-min", "The lowest version of TLS is what openvpn itself accepts."},
    {"tls-cipher tls-ciphersuites tls-groups tls-cert-profile",
     "TLS uses the ciphers and signatures that openvpn itself accepts."},
    {"cipher data-ciphers data-ciphers-fallback ncp-ciphers ncp-disable",
     "The server chooses the data's cipher from openvpn's own list; without a choice it is "
     "AES-256-CBC."},
    {"auth",
     "SHA1 authenticates the data, unless the cipher does it itself. A server that "
     "insists on another digest is not understood."},
    {"reneg-sec reneg-bytes reneg-pkts", "The keys are renewed only when the server asks for it."},
    {"comp-lzo compress allow-compression",
     "openvpn may compress what it sends, whose length can give the content away."},
    {"redirect-gateway redirect-private",
     "Only what the server asks for goes through the tunnel; the rest goes in clear."},
    {"block-outside-dns", "Names may be looked up outside the tunnel."},
    {"block-ipv6", "IPv6 may go around the tunnel, in clear."},
    {"dev dev-type",
     "The tunnel is a tun device. A server with a tap device does not "
     "understand it."},
    {"auth-user-pass static-challenge",
     "No name and password are sent. A server that asks for them lets nobody in."},
    {"http-proxy socks-proxy", "The server is called directly and not through the proxy."},
    {"user group chroot", "openvpn keeps the rights of root."},
};

bool isIn(const QString &list, char separator, const QString &text)
{
    return list.split(separator).contains(text);
}

/// Splits a line as openvpn does: blanks separate; double quotes with backslashes, single quotes
/// without; '#' and ';' begin a comment where a word begins.
/// @return nothing when a quote does not end.
std::optional<QStringList> wordsOf(const QString &line)
{
    static const QRegularExpression pattern(
        R"re(\s*(?:"((?:[^"\\]|\\.)*)"|'([^']*)'|([#;].*)|((?:[^\s"'\\]|\\.)+))\s*)re");
    static const QRegularExpression escape(R"re(\\(.))re");
    QStringList words;
    int end = 0;
    while (end < line.size()) {
        const auto match = pattern.match(line, end, QRegularExpression::NormalMatch,
                                         QRegularExpression::AnchoredMatchOption);
        if (!match.hasMatch())
            return {};
        end = match.capturedEnd();
        if (match.capturedLength(3) > 0)
            break;
        const bool isLiteral = match.capturedStart(2) >= 0;
        QString word = match.captured(isLiteral ? 2 : match.capturedStart(1) >= 0 ? 1 : 4);
        words.append(isLiteral ? word : word.replace(escape, "\\1"));
    }
    return words;
}

class ProfileReader
{
public:
    explicit ProfileReader(const QString &path)
        : m_path(path)
        , m_lines(readTextFile(path, "profile").split('\n'))
    {
    }

    TargetList read()
    {
        while (m_next < m_lines.size())
            readLine(m_lines.at(m_next++).trimmed());
        if (m_isInConnection)
            throw wrongUse(m_path + ": <connection> does not end with </connection>.");
        if (m_profile.remotes.isEmpty()) {
            throw wrongUse(QString("%1 names no server: it has no \"remote\" line.").arg(m_path),
                           "A server record needs --server before it.");
        }
        complete(0, m_global);
        complete(0, {{}, kStandardPort, Transport::Udp});
        return m_profile;
    }

private:
    void readLine(const QString &line)
    {
        if (line == "<connection>") {
            m_isInConnection = true;
            m_connection = {};
            m_firstOfConnection = m_profile.remotes.size();
        } else if (line == "</connection>") {
            m_isInConnection = false;
            complete(m_firstOfConnection, m_connection);
        } else if (line.startsWith('<') && line.endsWith('>')) {
            readBlock(line.mid(1, line.size() - 2));
        } else if (const std::optional<QStringList> words = wordsOf(line); !words) {
            fail("a quote does not end");
        } else if (!words->isEmpty()) {
            readDirective(*words);
        }
    }

    void readBlock(const QString &name)
    {
        const QString tag = QString("</%1>").arg(name);
        int end = m_next;
        while (end < m_lines.size() && !m_lines.at(end).trimmed().startsWith(tag))
            ++end;
        if (end == m_lines.size())
            fail(QString("<%1> does not end with %2").arg(name, tag));
        if (const PemSetting *setting = pemSetting(name)) {
            m_profile.server.*setting->field =
                pemFromText(*setting, m_lines.mid(m_next, end - m_next).join('\n'),
                            QString("<%1> in %2").arg(name, m_path));
        } else {
            leaveOut({name});
        }
        m_next = end + 1;
    }

    void readDirective(QStringList words)
    {
        // On openvpn's command line directives begin with two dashes, and files may have them too.
        if (words.first().startsWith("--"))
            words.first().remove(0, 2);
        const QString name = words.first();
        const QString value = words.value(1);
        if (name == "remote") {
            if (!isHost(value))
                fail(QString("\"%1\" is no host name or address").arg(value));
            m_profile.remotes.append(
                {value, words.size() > 2 ? port(words.at(2)) : 0,
                 words.size() > 3 ? transport(words.at(3)) : std::optional<Transport>()});
        } else if (name == "port" || name == "rport") {
            defaults().port = port(value);
        } else if (name == "proto") {
            defaults().transport = transport(value);
        } else if (const PemSetting *setting = pemSetting(name)) {
            if (value.isEmpty())
                fail(QString("\"%1\" lacks its file").arg(name));
            if (value != "[inline]") {
                m_profile.server.*setting->field =
                    pemFromFile(*setting, QFileInfo(m_path).absoluteDir().filePath(value));
            }
        } else {
            leaveOut(words);
        }
    }

    int port(const QString &word)
    {
        bool isNumber = false;
        const int port = word.toInt(&isNumber);
        if (!isNumber || port < 1 || port > kMaxPort)
            fail(QString("\"%1\" is no port; ports are 1 to %2").arg(word).arg(kMaxPort));
        return port;
    }

    Transport transport(const QString &word)
    {
        static const QRegularExpression pattern("\\A(?:(udp)[46]?|tcp[46]?(?:-client)?)\\z");
        const QRegularExpressionMatch match = pattern.match(word);
        if (!match.hasMatch())
            fail(QString("\"%1\" is no transport; the daemon knows udp and tcp").arg(word));
        return match.capturedLength(1) > 0 ? Transport::Udp : Transport::Tcp;
    }

    static const PemSetting *pemSetting(const QString &name)
    {
        for (const PemSetting &setting : kPemSettings) {
            if (name == setting.name)
                return &setting;
        }
        return nullptr;
    }

    /// What fills the gaps of the remotes: the lines of the connection block, or of the profile.
    Remote &defaults() { return m_isInConnection ? m_connection : m_global; }

    void complete(int first, const Remote &defaults)
    {
        for (int index = first; index < m_profile.remotes.size(); ++index) {
            Remote &remote = m_profile.remotes[index];
            remote.port = remote.port ? remote.port : defaults.port;
            remote.transport = remote.transport ? remote.transport : defaults.transport;
        }
    }

    void leaveOut(const QStringList &words)
    {
        const QString &name = words.first();
        const bool isTun =
            name == "dev" && words.value(1).startsWith("tun"); // its number is openvpn's affair
        if (isTun || isIn(kHarmless, ' ', name) || isIn(kSameInDaemon, '|', words.join(' '))
            || m_leftOut.contains(name)) {
            return;
        }
        m_leftOut.append(name);
        for (const Weakness &protection : kProtections) {
            if (isIn(protection.directive, ' ', name)) {
                m_profile.weaknesses.append({name, protection.text});
                return;
            }
        }
        m_profile.notCarriedOver.append(name);
    }

    [[noreturn]] void fail(const QString &complaint)
    {
        throw wrongUse(QString("%1, line %2: %3.").arg(m_path).arg(m_next).arg(complaint));
    }

    QString m_path;
    QStringList m_lines;
    int m_next = 0;
    QStringList m_leftOut;

    TargetList m_profile;
    Remote m_global;
    Remote m_connection;
    bool m_isInConnection = false;
    int m_firstOfConnection = 0;
};

} // namespace

TargetList readOvpnProfile(const QString &path)
{
    return ProfileReader(path).read();
}

Weaknesses protections()
{
    return kProtections;
}

} // namespace vpnctl
