#include "targetreader.h"

#include "ovpnprofile.h"
#include "pem.h"
#include "serverrecord.h"

#include <QtCore/QFileInfo>

#include <algorithm>

namespace vpnctl {

namespace {

void setPort(Target &target, Transport transport, int port)
{
    target.transport = transport;
    (transport == Transport::Udp ? target.server.udpPort : target.server.tcpPort) = port;
}

/// Where the user wants one transport: the remotes that have it, or else all of them, with it.
QVector<OvpnProfile::Remote> remotesFor(const QVector<OvpnProfile::Remote> &remotes,
                                        std::optional<Transport> transport)
{
    if (!transport)
        return remotes;
    QVector<OvpnProfile::Remote> matching;
    std::copy_if(remotes.begin(), remotes.end(), std::back_inserter(matching),
                 [&](const OvpnProfile::Remote &remote) { return remote.transport == *transport; });
    if (!matching.isEmpty())
        return matching;
    matching = remotes;
    for (OvpnProfile::Remote &remote : matching)
        remote.transport = *transport;
    return matching;
}

QString notCarriedOverNote(const OvpnProfile &profile)
{
    const QString separator = QStringLiteral(", ");
    QString note = QStringLiteral("Not carried over from the profile: %1.")
                       .arg(profile.notCarriedOver.join(separator));
    if (!profile.likelyNeeded.isEmpty()) {
        note += QStringLiteral(" The server may let nobody in without: %1.")
                    .arg(profile.likelyNeeded.join(separator));
    }
    return note;
}

std::optional<TargetList> fromProfile(const Options &options, QString *error)
{
    const std::optional<OvpnProfile> profile = readOvpnProfile(options.configPath, error);
    if (!profile)
        return {};
    TargetList list;
    if (!profile->notCarriedOver.isEmpty())
        list.notes.append(notCarriedOverNote(*profile));
    for (const OvpnProfile::Remote &remote : remotesFor(profile->remotes, options.transport())) {
        Target target;
        target.server.name = QFileInfo(options.configPath).completeBaseName();
        target.server.host = remote.host;
        target.server.ca = profile->ca;
        target.server.cert = profile->cert;
        target.server.key = profile->key;
        setPort(target, remote.transport, remote.port);
        list.targets.append(target);
    }
    return list;
}

std::optional<TargetList> fromRecord(const Options &options, QString *error)
{
    const std::optional<ServerRecord> record = readServerRecord(options.recordPath, error);
    if (!record)
        return {};
    Target target;
    target.server = record->server;
    const Transport standard =
        target.server.udpPort != 0 || target.server.tcpPort == 0 ? Transport::Udp : Transport::Tcp;
    target.transport = options.transport().value_or(standard);
    if (target.port() == 0) {
        *error = QStringLiteral("%1 gives no port for %2: \"%3\" is missing.")
                     .arg(options.recordPath, transportName(target.transport),
                          target.transport == Transport::Udp ? QStringLiteral("udpPort")
                                                             : QStringLiteral("tcpPort"));
        return {};
    }
    TargetList list;
    list.targets.append(target);
    if (!record->unknownKeys.isEmpty()) {
        list.notes.append(QStringLiteral("Keys of the record that mean nothing here: %1.")
                              .arg(record->unknownKeys.join(QStringLiteral(", "))));
    }
    return list;
}

std::optional<TargetList> fromHost(const Options &options, QString *error)
{
    Target target;
    target.server.name = options.host;
    target.server.host = options.host;
    const auto read = [&](PemKind kind, const QString &path, QString *text) {
        if (path.isEmpty())
            return true;
        const std::optional<QString> pem = pemFromFile(kind, path, QDir::current(), error);
        *text = pem.value_or(QString());
        return pem.has_value();
    };
    if (!read(PemKind::Authority, options.caPath, &target.server.ca)
        || !read(PemKind::Certificate, options.certPath, &target.server.cert)
        || !read(PemKind::Key, options.keyPath, &target.server.key)) {
        return {};
    }
    setPort(target, options.transport().value_or(Transport::Udp), options.port);
    TargetList list;
    list.targets.append(target);
    return list;
}

/// The daemon's configuration always has all three, and openvpn does not start with an empty one.
void noteMissingPem(TargetList &list)
{
    const VpnServerInformation &server = list.targets.constFirst().server;
    QStringList missing;
    if (server.ca.isEmpty())
        missing.append(QStringLiteral("ca"));
    if (server.cert.isEmpty())
        missing.append(QStringLiteral("cert"));
    if (server.key.isEmpty())
        missing.append(QStringLiteral("key"));
    if (!missing.isEmpty()) {
        list.notes.append(QStringLiteral("openvpn will most likely refuse to start without: %1.")
                              .arg(missing.join(QStringLiteral(", "))));
    }
}

} // namespace

std::optional<TargetList> readTargets(const Options &options, QString *error)
{
    std::optional<TargetList> list;
    if (!options.configPath.isEmpty())
        list = fromProfile(options, error);
    else if (!options.recordPath.isEmpty())
        list = fromRecord(options, error);
    else
        list = fromHost(options, error);
    if (list)
        noteMissingPem(*list);
    return list;
}

} // namespace vpnctl
