#include "pem.h"

#include "textfile.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QVector>

namespace vpnctl {

namespace {

bool isOfKind(PemKind kind, const QString &label)
{
    return label.endsWith(QLatin1String(kind == PemKind::Key ? "PRIVATE KEY" : "CERTIFICATE"));
}

QString describe(PemKind kind)
{
    return kind == PemKind::Key ? QStringLiteral("private key") : QStringLiteral("certificate");
}

struct Block
{
    QString label; ///< what stands after "-----BEGIN "
    QString text;
    bool isPem = true; ///< its lines are base64 or headers

    bool isEncrypted() const
    {
        return label == QLatin1String("ENCRYPTED PRIVATE KEY")
            || text.contains(QLatin1String("Proc-Type: 4,ENCRYPTED"));
    }
};

/// Base64, a header as keys of older forms have them (RFC 1421), or nothing.
bool isBlockLine(const QString &line)
{
    static const QRegularExpression pattern(
        QStringLiteral("\\A(?:[A-Za-z0-9+/]*={0,2}|[A-Za-z0-9-]+: [!-;=-~ ]*)\\z"));
    return pattern.match(line).hasMatch();
}

/// A block that does not end is left out.
QVector<Block> blocksOf(const QString &text)
{
    static const QRegularExpression begin(QStringLiteral("\\A-----BEGIN ([A-Z0-9 ]+)-----\\z"));

    QVector<Block> blocks;
    Block block;
    for (const QString &untrimmed : text.split(QLatin1Char('\n'))) {
        const QString line = untrimmed.trimmed();
        const QRegularExpressionMatch match = begin.match(line);
        if (match.hasMatch())
            block = {match.captured(1), {}};
        else if (block.label.isEmpty())
            continue;

        block.text += line + QLatin1Char('\n');
        if (line == QStringLiteral("-----END %1-----").arg(block.label)) {
            blocks.append(block);
            block = {};
        } else if (!match.hasMatch()) {
            block.isPem = block.isPem && isBlockLine(line);
        }
    }
    return blocks;
}

} // namespace

QString pemName(PemKind kind)
{
    switch (kind) {
    case PemKind::Authority:
        return QStringLiteral("ca");
    case PemKind::Certificate:
        return QStringLiteral("cert");
    case PemKind::Key:
        break;
    }
    return QStringLiteral("key");
}

std::optional<QString> pemFromText(PemKind kind, const QString &text, const QString &source,
                                   QString *error)
{
    QString blocks;
    bool isKindSeen = false;
    for (const Block &block : blocksOf(text)) {
        if (block.isEncrypted()) {
            *error = QStringLiteral("The key in %1 is encrypted, and the daemon cannot ask for its "
                                    "pass phrase; store it decrypted.")
                         .arg(source);
            return {};
        }
        if (!block.isPem) {
            *error = QStringLiteral("%1 holds a damaged PEM block: one of its lines is neither "
                                    "base64 nor a header.")
                         .arg(source);
            return {};
        }
        isKindSeen = isKindSeen || isOfKind(kind, block.label);
        blocks += block.text;
    }
    if (!isKindSeen) {
        *error = QStringLiteral("%1 holds no %2 in PEM form (\"-----BEGIN ...\").")
                     .arg(source, describe(kind));
        return {};
    }
    return blocks;
}

std::optional<QString> pemFromFile(PemKind kind, const QString &path, const QDir &folder,
                                   QString *error)
{
    const QString wholePath = folder.filePath(path);
    const std::optional<QByteArray> content =
        readTextFile(wholePath, pemName(kind) + QStringLiteral(" file"), error);
    if (!content)
        return {};
    return pemFromText(kind, QString::fromLatin1(*content), wholePath, error);
}

} // namespace vpnctl
