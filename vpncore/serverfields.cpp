#include "serverfields.h"

#include <algorithm>

namespace vpncore {

namespace {

/// OpenVPN refuses a line from 256 bytes on, line feed included.
constexpr int kMaxLineBytes = 255;

bool separatesWords(QChar character)
{
    return character.isSpace() || character.category() == QChar::Other_Control
        || QStringLiteral("\"'\\#;").contains(character);
}

} // namespace

bool fitsRemoteLine(const QString &host, int port)
{
    const QByteArray bytes = host.toLatin1();
    const QString written = QString::fromLatin1(bytes.constData(), bytes.size()); // with any NUL
    const QString line = QStringLiteral("remote %1 %2\n").arg(written, QString::number(port));
    return std::none_of(written.begin(), written.end(), separatesWords)
        && line.toUtf8().size() <= kMaxLineBytes;
}

bool fitsInlineBlock(const QString &text, QLatin1String tag)
{
    return !text.contains(QStringLiteral("</%1>").arg(tag)) && !text.contains(QChar(QChar::Null));
}

} // namespace vpncore
