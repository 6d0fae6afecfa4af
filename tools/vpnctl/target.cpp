#include "target.h"

#include "inputfile.h"
#include "options.h"
#include "report.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

#include <algorithm>
#include <limits>

namespace vpnctl {

namespace {

using Server = VpnServerInformation;

constexpr std::pair<const char *, QString Server::*> kTexts[] = {
    {"name", &Server::name}, {"info", &Server::info}, {"host", &Server::host},
    {"ca", &Server::ca},     {"cert", &Server::cert}, {"key", &Server::key},
};

constexpr std::tuple<const char *, qint32 Server::*, qint32, qint32> kNumbers[] = {
    {"id", &Server::id, std::numeric_limits<qint32>::min(), std::numeric_limits<qint32>::max()},
    {"udpPort", &Server::udpPort, 0, kMaxPort},
    {"tcpPort", &Server::tcpPort, 0, kMaxPort},
};

TargetList fromProfile(const Options &options)
{
    TargetList list = readOvpnProfile(options.configPath);
    const std::optional<Transport> wanted = options.transport();
    const auto hasOther = [&](const Remote &remote) { return remote.transport != wanted; };
    QVector<Remote> &remotes = list.remotes;
    if (!std::all_of(remotes.begin(), remotes.end(), hasOther)) {
        remotes.erase(std::remove_if(remotes.begin(), remotes.end(), hasOther), remotes.end());
    } else if (wanted) {
        for (Remote &remote : remotes)
            remote.transport = wanted;
    }
    return list;
}

TargetList fromRecord(const Options &options)
{
    const Server server = readServerRecord(options.recordPath);
    const bool hasUdp = server.udpPort != 0 || server.tcpPort == 0;
    const Transport transport =
        options.transport().value_or(hasUdp ? Transport::Udp : Transport::Tcp);
    const int port = transport == Transport::Udp ? server.udpPort : server.tcpPort;
    if (port == 0) {
        const QString name = transportName(transport);
        throw wrongUse(QString("%1 gives no port for %2: \"%3Port\" is missing.")
                           .arg(options.recordPath, name, name.toLower()));
    }
    return {{{server.host, port, transport}}, server, {}, {}};
}

TargetList fromHost(const Options &options)
{
    if (!isHost(options.host))
        throw wrongUse(QString("\"%1\" is no host name or address.").arg(options.host),
                       "A port goes with --port.");
    Server server;
    const QString paths[] = {options.caPath, options.certPath, options.keyPath};
    for (int index = 0; index < 3; ++index)
        server.*kPemSettings[index].field = pemFromFile(kPemSettings[index], paths[index]);
    const Transport transport = options.transport().value_or(Transport::Udp);
    return {{{options.host, options.port, transport}}, server, {}, {}};
}

} // namespace

QString transportName(Transport transport)
{
    return transport == Transport::Udp ? "UDP" : "TCP";
}

TargetList readTargets(const Options &options)
{
    if (!options.host.isEmpty())
        return fromHost(options);
    const bool isProfile = !options.configPath.isEmpty();
    TargetList list = isProfile ? fromProfile(options) : fromRecord(options);
    // The daemon's configuration always has all three, and openvpn does not start with an empty
    // one.
    QStringList missing;
    for (const PemSetting &setting : kPemSettings) {
        if ((list.server.*setting.field).isEmpty())
            missing.append(setting.name);
    }
    if (!missing.isEmpty()) {
        throw wrongUse(
            QString("%1 lacks: %2.")
                .arg(isProfile ? options.configPath : options.recordPath, missing.join(", ")),
            "openvpn needs ca, cert and key, as PEM.");
    }
    return list;
}

VpnServerInformation readServerRecord(const QString &path)
{
    QJsonParseError error;
    const QString text = readTextFile(path, "record");
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        throw wrongUse(QString("%1 is not valid JSON: %2 (at byte %3).")
                           .arg(path, error.errorString())
                           .arg(error.offset),
                       "An OpenVPN profile is for connect, without --server.");
    }
    if (!document.isObject())
        throw wrongUse(QString("%1 must hold one JSON object.").arg(path));
    const auto check = [&path](bool isGood, const char *key, const QString &complaint) {
        if (!isGood)
            throw wrongUse(QString("%1: \"%2\" %3.").arg(path, key, complaint));
    };

    Server server;
    for (const auto &[key, field] : kTexts) {
        const QJsonValue value = document[key];
        check(value.isUndefined() || value.isString(), key, "must be a text");
        server.*field = value.toString();
    }
    check(isHost(server.host), "host",
          server.host.isEmpty() ? "is missing" : "is no host name or address");
    for (const auto &[key, field, lowest, highest] : kNumbers) {
        const QJsonValue value = document[key];
        if (value.isUndefined())
            continue;
        // Written so that numbers with a fraction, and no numbers, are wrong.
        const double number = value.toDouble(0.5);
        check(number >= lowest && number <= highest && number == static_cast<qint32>(number), key,
              QString("must be a whole number from %1 to %2").arg(lowest).arg(highest));
        server.*field = static_cast<qint32>(number);
    }
    for (const PemSetting &setting : kPemSettings) {
        QString &field = server.*setting.field;
        if (field.contains("-----BEGIN"))
            field = pemFromText(setting, field, QString("\"%1\" in %2").arg(setting.name, path));
        else if (!field.isEmpty())
            field = pemFromFile(setting, QFileInfo(path).absoluteDir().filePath(field));
    }
    return server;
}

bool isHost(const QString &text)
{
    static const QRegularExpression pattern(R"(\A(?![^:]*:[^:]*\z)[A-Za-z0-9._:%-]{1,235}\z)");
    return pattern.match(text).hasMatch();
}

} // namespace vpnctl
