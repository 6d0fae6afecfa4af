#pragma once

#include <QtCore/QDataStream>
#include <QtCore/QMetaType>
#include <QtCore/QString>

/// The VPN server that a connect command is for.
struct VpnServerInformation
{
    QString name; ///< The client's own; the daemon never reads it.
    qint32 id = -1; ///< The client's own; the daemon never reads it.
    QString info; ///< The client's own; the daemon never reads it.
    QString host; ///< Host name or address of the OpenVPN server.
    QString ca; ///< CA certificate, PEM.
    QString key; ///< Private key of the client, PEM.
    QString cert; ///< Certificate of the client, PEM.
    qint32 udpPort = 0; ///< Port for the transport UDP.
    qint32 tcpPort = 0; ///< Port for the transport TCP.
};

/// Writes ten items for nine fields: `id` goes out second and again fifth. That is wanted:
/// clients in the field write and read both copies.
inline QDataStream &operator<<(QDataStream &stream, const VpnServerInformation &server)
{
    return stream << server.name << server.id << server.info << server.host << server.id
                  << server.ca << server.key << server.cert << server.udpPort << server.tcpPort;
}

/// Reads what the other operator writes; of two different `id` items the later one stays.
/// Failures are the stream's status.
inline QDataStream &operator>>(QDataStream &stream, VpnServerInformation &server)
{
    return stream >> server.name >> server.id >> server.info >> server.host >> server.id
        >> server.ca >> server.key >> server.cert >> server.udpPort >> server.tcpPort;
}

Q_DECLARE_METATYPE(VpnServerInformation)
