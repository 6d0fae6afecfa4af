#include "ovpnprofile.h"

#include "host.h"
#include "pem.h"
#include "textfile.h"

#include <QtCore/QFileInfo>

#include <algorithm>
#include <iterator>

namespace vpnctl {

namespace {

/// What the daemon's own configuration has too.
constexpr const char *kSameInDaemon[] = {
    "client",
    "dev tun",
    "tls-client",
    "resolv-retry infinite",
    "nobind",
    "persist-key",
    "persist-tun",
    "remote-cert-tls server",
    "comp-lzo",
    "verb 1",
    "tun-mtu 1500",
    "tun-mtu-extra 32",
    "mssfix 1450",
    "ping 15",
    "ping-restart 0",
    "ping-timer-rem",
    "reneg-sec 0",
    "pull",
    "fast-io",
    "cipher AES-256-CBC",
    "script-security 2",
};

constexpr const char *kLikelyNeeded[] = {
    "auth-user-pass", "tls-auth",         "tls-crypt",  "tls-crypt-v2", "pkcs12",
    "secret",         "static-challenge", "http-proxy", "socks-proxy",
};

template<std::size_t Size>
bool contains(const char *const (&list)[Size], const QString &text)
{
    return std::any_of(std::begin(list), std::end(list),
                       [&](const char *entry) { return text == QLatin1String(entry); });
}

std::optional<Transport> transportFrom(const QString &proto)
{
    if (proto == QLatin1String("udp") || proto == QLatin1String("udp4")
        || proto == QLatin1String("udp6"))
        return Transport::Udp;
    for (const char *tcp : {"tcp", "tcp4", "tcp6", "tcp-client", "tcp4-client", "tcp6-client"}) {
        if (proto == QLatin1String(tcp))
            return Transport::Tcp;
    }
    return {};
}

/// Splits a line as openvpn does: blanks separate; double quotes with backslashes, single quotes
/// without; '#' and ';' begin a comment where a word could begin.
/// @return nothing when a quote does not end.
std::optional<QStringList> wordsOf(const QString &line)
{
    QStringList words;
    QString word;
    bool isInWord = false;
    QChar quote;
    for (int index = 0; index < line.size(); ++index) {
        const QChar character = line.at(index);
        const bool isEscape =
            character == QLatin1Char('\\') && quote != QLatin1Char('\'') && index + 1 < line.size();
        if (isEscape) {
            word += line.at(++index);
            isInWord = true;
        } else if (!quote.isNull()) {
            if (character == quote)
                quote = QChar();
            else
                word += character;
        } else if (character == QLatin1Char('"') || character == QLatin1Char('\'')) {
            quote = character;
            isInWord = true;
        } else if (character.isSpace()) {
            if (isInWord)
                words.append(word);
            word.clear();
            isInWord = false;
        } else if (!isInWord && (character == QLatin1Char('#') || character == QLatin1Char(';'))) {
            break;
        } else {
            word += character;
            isInWord = true;
        }
    }
    if (!quote.isNull())
        return {};
    if (isInWord)
        words.append(word);
    return words;
}

class ProfileReader
{
public:
    ProfileReader(const QString &text, const QString &source, const QDir &folder)
        : m_lines(text.split(QLatin1Char('\n')))
        , m_source(source)
        , m_folder(folder)
    {
    }

    std::optional<OvpnProfile> read(QString *error)
    {
        while (m_error.isEmpty() && m_next < m_lines.size())
            readLine(m_lines.at(m_next++).trimmed());
        if (m_error.isEmpty())
            finish();
        if (!m_error.isEmpty()) {
            *error = m_error;
            return {};
        }
        return m_profile;
    }

private:
    /// As a `remote` line gives it; what it leaves open, other lines decide.
    struct RemoteLine
    {
        QString host;
        int port = 0;
        std::optional<Transport> transport;
    };

    struct Defaults
    {
        int port = 0;
        std::optional<Transport> transport;
    };

    void readLine(const QString &line)
    {
        if (line == QLatin1String("</connection>")) {
            endConnection();
            return;
        }
        if (line.startsWith(QLatin1Char('<')) && line.endsWith(QLatin1Char('>'))) {
            readBlock(line.mid(1, line.size() - 2));
            return;
        }
        const std::optional<QStringList> words = wordsOf(line);
        if (!words)
            fail(QStringLiteral("a quote does not end"));
        else if (!words->isEmpty())
            readDirective(*words);
    }

    void readBlock(const QString &name)
    {
        if (name == QLatin1String("connection")) {
            m_isInConnection = true;
            m_connection = {};
            m_firstOfConnection = m_remotes.size();
            return;
        }
        const int start = m_next;
        const QString end = QStringLiteral("</%1>").arg(name);
        QString text;
        while (m_next < m_lines.size()) {
            const QString line = m_lines.at(m_next++);
            if (line.trimmed().startsWith(end)) {
                readInline(name, text);
                return;
            }
            text += line + QLatin1Char('\n');
        }
        m_next = start;
        fail(QStringLiteral("<%1> does not end with %2").arg(name, end));
    }

    void readInline(const QString &name, const QString &text)
    {
        if (name == QLatin1String("ca"))
            m_profile.ca = pemInline(PemKind::Authority, text);
        else if (name == QLatin1String("cert"))
            m_profile.cert = pemInline(PemKind::Certificate, text);
        else if (name == QLatin1String("key"))
            m_profile.key = pemInline(PemKind::Key, text);
        else
            leaveOut(name);
    }

    void readDirective(QStringList words)
    {
        // On openvpn's command line directives begin with two dashes, and files may have them too.
        if (words.first().startsWith(QLatin1String("--")))
            words.first().remove(0, 2);
        const QString name = words.first();
        if (name == QLatin1String("remote"))
            readRemote(words);
        else if (name == QLatin1String("port") || name == QLatin1String("rport"))
            defaults().port = port(words.value(1));
        else if (name == QLatin1String("proto"))
            defaults().transport = transport(words.value(1));
        else if (name == QLatin1String("ca"))
            readFile(PemKind::Authority, words, &m_profile.ca);
        else if (name == QLatin1String("cert"))
            readFile(PemKind::Certificate, words, &m_profile.cert);
        else if (name == QLatin1String("key"))
            readFile(PemKind::Key, words, &m_profile.key);
        else if (!contains(kSameInDaemon, words.join(QLatin1Char(' '))))
            leaveOut(name);
    }

    void readRemote(const QStringList &words)
    {
        RemoteLine remote;
        remote.host = words.value(1);
        if (!isHost(remote.host)) {
            fail(QStringLiteral("\"%1\" is no host name or address").arg(remote.host));
            return;
        }
        if (words.size() > 2)
            remote.port = port(words.at(2));
        if (words.size() > 3)
            remote.transport = transport(words.at(3));
        m_remotes.append(remote);
    }

    void readFile(PemKind kind, const QStringList &words, QString *text)
    {
        const QString path = words.value(1);
        if (path == QLatin1String("[inline]"))
            return;
        if (path.isEmpty()) {
            fail(QStringLiteral("\"%1\" lacks its file").arg(words.first()));
            return;
        }
        QString error;
        *text = pemFromFile(kind, path, m_folder, &error).value_or(QString());
        if (!error.isEmpty())
            m_error = error;
    }

    QString pemInline(PemKind kind, const QString &text)
    {
        QString error;
        const QString source = QStringLiteral("<%1> in %2").arg(pemName(kind), m_source);
        QString pem = pemFromText(kind, text, source, &error).value_or(QString());
        if (!error.isEmpty())
            m_error = error;
        return pem;
    }

    int port(const QString &word)
    {
        bool isNumber = false;
        const int port = word.toInt(&isNumber);
        if (!isNumber || !isPort(port)) {
            fail(QStringLiteral("\"%1\" is no port; ports are %2 to %3")
                     .arg(word)
                     .arg(kMinPort)
                     .arg(kMaxPort));
        }
        return port;
    }

    std::optional<Transport> transport(const QString &word)
    {
        const std::optional<Transport> transport = transportFrom(word);
        if (!transport)
            fail(QStringLiteral("\"%1\" is no transport; the daemon knows udp and tcp").arg(word));
        return transport;
    }

    Defaults &defaults() { return m_isInConnection ? m_connection : m_global; }

    void endConnection()
    {
        for (int index = m_firstOfConnection; index < m_remotes.size(); ++index)
            complete(m_remotes[index], m_connection);
        m_isInConnection = false;
    }

    static void complete(RemoteLine &remote, const Defaults &defaults)
    {
        if (remote.port == 0)
            remote.port = defaults.port;
        if (!remote.transport)
            remote.transport = defaults.transport;
    }

    void leaveOut(const QString &name)
    {
        if (m_profile.notCarriedOver.contains(name))
            return;
        m_profile.notCarriedOver.append(name);
        if (contains(kLikelyNeeded, name))
            m_profile.likelyNeeded.append(name);
    }

    void finish()
    {
        if (m_isInConnection)
            m_error =
                QStringLiteral("%1: <connection> does not end with </connection>.").arg(m_source);
        else if (m_remotes.isEmpty())
            m_error =
                QStringLiteral("%1 names no server: it has no \"remote\" line.").arg(m_source);
        for (RemoteLine remote : qAsConst(m_remotes)) {
            complete(remote, m_global);
            complete(remote, {kStandardPort, Transport::Udp});
            m_profile.remotes.append({remote.host, remote.port, *remote.transport});
        }
    }

    void fail(const QString &complaint)
    {
        if (m_error.isEmpty())
            m_error = QStringLiteral("%1, line %2: %3.").arg(m_source).arg(m_next).arg(complaint);
    }

    QStringList m_lines;
    QString m_source;
    QDir m_folder;
    int m_next = 0;
    QString m_error;

    OvpnProfile m_profile;
    QVector<RemoteLine> m_remotes;
    Defaults m_global;
    Defaults m_connection;
    bool m_isInConnection = false;
    int m_firstOfConnection = 0;
};

} // namespace

std::optional<OvpnProfile> parseOvpnProfile(const QString &text, const QString &source,
                                            const QDir &folder, QString *error)
{
    return ProfileReader(text, source, folder).read(error);
}

std::optional<OvpnProfile> readOvpnProfile(const QString &path, QString *error)
{
    const std::optional<QByteArray> text = readTextFile(path, QStringLiteral("profile"), error);
    if (!text)
        return {};
    return parseOvpnProfile(QString::fromUtf8(*text), path, QFileInfo(path).absoluteDir(), error);
}

} // namespace vpnctl
