#include "target.h"

#include "inputfile.h"
#include "options.h"
#include "ovpnprofile.h"
#include "problem.h"

#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

#include <limits>
#include <tuple>
#include <utility>

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

void setPort(Target &target, Transport transport, int port)
{
    target.transport = transport;
    (transport == Transport::Udp ? target.server.udpPort : target.server.tcpPort) = port;
}

/// Where the user wants one transport: the remotes that have it, or else all of them, with it.
Targets targetsFor(const OvpnProfile &profile, const Options &options)
{
    const std::optional<Transport> wanted = options.transport();
    const bool isThere =
        std::any_of(profile.remotes.begin(), profile.remotes.end(),
                    [&](const OvpnProfile::Remote &remote) { return remote.transport == wanted; });
    Targets targets;
    for (const OvpnProfile::Remote &remote : profile.remotes) {
        if (isThere && remote.transport != wanted)
            continue;
        Target target{profile.server, Transport::Udp};
        target.server.name = QFileInfo(options.configPath).completeBaseName();
        target.server.host = remote.host;
        setPort(target, wanted ? *wanted : *remote.transport, remote.port);
        targets.append(target);
    }
    return targets;
}

TargetList fromProfile(const Options &options)
{
    const OvpnProfile profile = readOvpnProfile(options.configPath);
    return {targetsFor(profile, options), profile.notCarriedOver, profile.weaknesses};
}

TargetList fromRecord(const Options &options)
{
    Target target;
    target.server = readServerRecord(options.recordPath);
    const bool hasUdp = target.server.udpPort != 0 || target.server.tcpPort == 0;
    target.transport = options.transport().value_or(hasUdp ? Transport::Udp : Transport::Tcp);
    if (target.port() == 0) {
        const QString name = transportName(target.transport);
        throw wrongUse(QString("%1 gives no port for %2: \"%3Port\" is missing.")
                           .arg(options.recordPath, name, name.toLower()));
    }
    return {{target}, {}, {}};
}

TargetList fromHost(const Options &options)
{
    Target target;
    target.server.name = target.server.host = options.host;
    const QString paths[] = {options.caPath, options.certPath, options.keyPath};
    for (int index = 0; index < 3; ++index) {
        const PemSetting &setting = kPemSettings[index];
        target.server.*setting.field = pemFromFile(setting, paths[index], QDir::current());
    }
    setPort(target, options.transport().value_or(Transport::Udp), options.port);
    return {{target}, {}, {}};
}

/// The daemon's configuration always has all three, and openvpn does not start with an empty one.
void checkPem(const Server &server, const QString &path)
{
    QStringList missing;
    for (const PemSetting &setting : kPemSettings) {
        if ((server.*setting.field).isEmpty())
            missing.append(setting.name);
    }
    if (!missing.isEmpty()) {
        throw wrongUse(QString("%1 lacks: %2.").arg(path, missing.join(", ")),
                       "openvpn needs ca, cert and key, as PEM.");
    }
}

} // namespace

QString transportName(Transport transport)
{
    return transport == Transport::Udp ? "UDP" : "TCP";
}

bool isHost(const QString &text)
{
    static const QRegularExpression pattern(R"(\A(?![^:]*:[^:]*\z)[A-Za-z0-9._:%-]{1,235}\z)");
    return pattern.match(text).hasMatch();
}

TargetList readTargets(const Options &options)
{
    if (!options.host.isEmpty())
        return fromHost(options);
    const bool isProfile = !options.configPath.isEmpty();
    TargetList list = isProfile ? fromProfile(options) : fromRecord(options);
    checkPem(list.targets.constFirst().server, isProfile ? options.configPath : options.recordPath);
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
    const QJsonObject object = document.object();
    const auto check = [&path](bool isGood, const char *key, const QString &complaint) {
        if (!isGood)
            throw wrongUse(QString("%1: \"%2\" %3.").arg(path, key, complaint));
    };

    Server server;
    for (const auto &[key, field] : kTexts) {
        const QJsonValue value = object[key];
        check(value.isUndefined() || value.isString(), key, "must be a text");
        server.*field = value.toString();
    }
    check(isHost(server.host), "host",
          server.host.isEmpty() ? "is missing" : "is no host name or address");
    for (const auto &[key, field, lowest, highest] : kNumbers) {
        const QJsonValue value = object[key];
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
            field = pemFromFile(setting, field, QFileInfo(path).absoluteDir());
    }
    return server;
}

} // namespace vpnctl
