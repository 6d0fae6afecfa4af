#include "pem.h"

#include "problem.h"
#include "textfile.h"

#include <QtCore/QRegularExpression>

namespace vpnctl {

QString pemFromText(const PemSetting &setting, const QString &text, const QString &source)
{
    static const QRegularExpression pattern(
        QStringLiteral("(-----BEGIN ([A-Z0-9 ]+)-----)(.*?)(-----END \\2-----)"),
        QRegularExpression::DotMatchesEverythingOption);
    QString blocks;
    bool isKindSeen = false;
    for (auto matches = pattern.globalMatch(text); matches.hasNext();) {
        const QRegularExpressionMatch block = matches.next();
        const QString label = block.captured(2);
        if (label.startsWith(QLatin1String("ENCRYPTED"))
            || block.captured(3).contains(QLatin1String("Proc-Type: 4,ENCRYPTED"))) {
            throw wrongUse(QStringLiteral("The key in %1 is encrypted, and the daemon cannot ask "
                                          "for its pass phrase; store it decrypted.")
                               .arg(source));
        }
        const QString body = block.captured(3).trimmed().remove(QLatin1Char('\r'));
        const QByteArray base64 = QString(body).remove(QLatin1Char('\n')).toLatin1();
        if (!QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors)) {
            throw wrongUse(
                QStringLiteral("%1 holds a damaged PEM block: it is no base64.").arg(source));
        }
        isKindSeen = isKindSeen || label.endsWith(QLatin1String(setting.label));
        blocks += QStringLiteral("%1\n%2\n%3\n").arg(block.captured(1), body, block.captured(4));
    }
    if (!isKindSeen) {
        throw wrongUse(QStringLiteral("%1 holds no %2 in PEM form (\"-----BEGIN ...\").")
                           .arg(source, QLatin1String(setting.description)));
    }
    return blocks;
}

QString pemFromFile(const PemSetting &setting, const QString &path, const QDir &folder)
{
    const QString whole = folder.filePath(path);
    return pemFromText(
        setting, readTextFile(whole, QStringLiteral("%1 file").arg(QLatin1String(setting.name))),
        whole);
}

} // namespace vpnctl
