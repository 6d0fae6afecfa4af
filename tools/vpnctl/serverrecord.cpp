#include "serverrecord.h"

#include "host.h"
#include "pem.h"
#include "target.h"
#include "textfile.h"

#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <limits>

namespace vpnctl {

namespace {

constexpr qint32 kNotServed = 0; ///< as a port

/// Takes the values out of the record one by one; the first that is wrong sets the error.
class RecordReader
{
public:
    RecordReader(const QJsonObject &object, const QString &source, const QDir &folder)
        : m_object(object)
        , m_source(source)
        , m_folder(folder)
    {
    }

    QString error() const { return m_error; }
    QStringList unknownKeys() const { return m_object.keys(); }

    QString text(const QString &key)
    {
        const QJsonValue value = m_object.take(key);
        if (!value.isUndefined() && !value.isString())
            fail(key, QStringLiteral("must be a text"));
        return value.toString();
    }

    qint32 number(const QString &key, qint32 standard)
    {
        using Limits = std::numeric_limits<qint32>;
        return integer(key, standard, Limits::min(), Limits::max());
    }

    qint32 port(const QString &key) { return integer(key, kNotServed, kNotServed, kMaxPort); }

    QString pem(PemKind kind)
    {
        const QString key = pemName(kind);
        const QString value = text(key);
        if (value.isEmpty() || !m_error.isEmpty())
            return {};
        QString error;
        const bool isInline = value.contains(QLatin1String("-----BEGIN"));
        const std::optional<QString> content = isInline
            ? pemFromText(kind, value, QStringLiteral("\"%1\" in %2").arg(key, m_source), &error)
            : pemFromFile(kind, value, m_folder, &error);
        if (!content)
            m_error = error;
        return content.value_or(QString());
    }

    QString host()
    {
        const QString key = QStringLiteral("host");
        if (!m_object.contains(key)) {
            fail(key, QStringLiteral("is missing"));
            return {};
        }
        QString host = text(key);
        if (!isHost(host))
            fail(key, QStringLiteral("is no host name or address"));
        return host;
    }

private:
    qint32 integer(const QString &key, qint32 standard, qint32 lowest, qint32 highest)
    {
        const QJsonValue value = m_object.take(key);
        if (value.isUndefined())
            return standard;
        // Written so that numbers with a fraction, and no numbers, fall through.
        const double number = value.toDouble(0.5);
        if (number >= lowest && number <= highest && number == static_cast<qint32>(number))
            return static_cast<qint32>(number);
        fail(key, QStringLiteral("must be a whole number from %1 to %2").arg(lowest).arg(highest));
        return standard;
    }

    void fail(const QString &key, const QString &complaint)
    {
        if (m_error.isEmpty())
            m_error = QStringLiteral("%1: \"%2\" %3.").arg(m_source, key, complaint);
    }

    QJsonObject m_object;
    QString m_source;
    QDir m_folder;
    QString m_error;
};

} // namespace

std::optional<ServerRecord> parseServerRecord(const QByteArray &json, const QString &source,
                                              const QDir &folder, QString *error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("%1 is not valid JSON: %2 (at byte %3).")
                     .arg(source, parseError.errorString())
                     .arg(parseError.offset);
        return {};
    }
    if (!document.isObject()) {
        *error = QStringLiteral("%1 must hold one JSON object.").arg(source);
        return {};
    }

    RecordReader reader(document.object(), source, folder);
    ServerRecord record;
    VpnServerInformation &server = record.server;
    server.name = reader.text(QStringLiteral("name"));
    server.id = reader.number(QStringLiteral("id"), server.id);
    server.info = reader.text(QStringLiteral("info"));
    server.host = reader.host();
    server.ca = reader.pem(PemKind::Authority);
    server.key = reader.pem(PemKind::Key);
    server.cert = reader.pem(PemKind::Certificate);
    server.udpPort = reader.port(QStringLiteral("udpPort"));
    server.tcpPort = reader.port(QStringLiteral("tcpPort"));
    record.unknownKeys = reader.unknownKeys();
    if (!reader.error().isEmpty()) {
        *error = reader.error();
        return {};
    }
    return record;
}

std::optional<ServerRecord> readServerRecord(const QString &path, QString *error)
{
    const std::optional<QByteArray> json = readTextFile(path, QStringLiteral("record"), error);
    if (!json)
        return {};
    return parseServerRecord(*json, path, QFileInfo(path).absoluteDir(), error);
}

} // namespace vpnctl
