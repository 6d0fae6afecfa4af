#include "inputfile.h"

#include "report.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTextStream>

namespace vpnctl {

QString readTextFile(const QString &path, const QString &what)
{
    constexpr int kMaxCharacters = 1'000'000;
    QFile file(path);
    QString text;
    if (file.open(QIODevice::ReadOnly)) {
        QTextStream stream(&file); // which knows UTF-16 by its first bytes
        stream.setCodec("UTF-8");
        text = stream.read(kMaxCharacters + 1);
    }
    if (file.error() != QFile::NoError)
        throw wrongUse(QString("Cannot read the %1 %2: %3.").arg(what, path, file.errorString()));
    if (text.size() > kMaxCharacters)
        throw wrongUse(QString("The %1 %2 has more than a million characters.").arg(what, path));
    return text;
}

QString pemFromText(const PemSetting &setting, const QString &text, const QString &source)
{
    static const QRegularExpression pattern(
        "(-----BEGIN ([A-Z0-9 ]+)-----)(.*?)(-----END \\2-----)",
        QRegularExpression::DotMatchesEverythingOption);
    QString blocks;
    bool isKindSeen = false;
    for (auto matches = pattern.globalMatch(text); matches.hasNext();) {
        const QRegularExpressionMatch block = matches.next();
        const QString label = block.captured(2);
        if (label.startsWith("ENCRYPTED") || block.captured(3).contains("Proc-Type: 4,ENCRYPTED")) {
            throw wrongUse(QString("The key in %1 is encrypted, and the daemon cannot ask "
                                   "for its pass phrase; store it decrypted.")
                               .arg(source));
        }
        const QString body = block.captured(3).trimmed().remove('\r');
        const QByteArray base64 = QString(body).remove('\n').toLatin1();
        if (!QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors)) {
            throw wrongUse(QString("%1 holds a damaged PEM block: it is no base64.").arg(source));
        }
        isKindSeen = isKindSeen || label.endsWith(setting.label);
        blocks += QString("%1\n%2\n%3\n").arg(block.captured(1), body, block.captured(4));
    }
    if (!isKindSeen) {
        throw wrongUse(QString("%1 holds no %2 in PEM form (\"-----BEGIN ...\").")
                           .arg(source, QString(setting.label).toLower()));
    }
    return blocks;
}

QString pemFromFile(const PemSetting &setting, const QString &path)
{
    return pemFromText(setting, readTextFile(path, QString("%1 file").arg(setting.name)), path);
}

} // namespace vpnctl
