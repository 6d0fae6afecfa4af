#include "serverfields.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

namespace vpncore {

namespace {

bool isHostCharacter(QChar character)
{
    const char16_t c = character.unicode();
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.'
        || c == '-' || c == '_' || c == ':';
}

/// A zero byte would end the whole text.
bool isHarmless(QChar character)
{
    const char16_t c = character.unicode();
    if (c == '\t' || c == '\n' || c == '\r')
        return true;
    return c >= ' ' && !(c >= 0x7f && c <= 0x9f);
}

/// Every closing tag begins with these two. A "<" alone is frequent: OpenSSL explains keys with
/// "Key Attributes: <No Attributes>".
bool mayCloseInlineBlock(const QString &text)
{
    return text.contains(QLatin1String("</"));
}

/// @return the label of a line "-----BEGIN LABEL-----" (or END), empty when it is none.
QString label(const QString &line, const QString &kind)
{
    const QString start = QStringLiteral("-----") + kind + QLatin1Char(' ');
    const QString end = QStringLiteral("-----");
    if (!line.startsWith(start) || !line.endsWith(end) || line.size() <= start.size() + end.size())
        return {};
    return line.mid(start.size(), line.size() - start.size() - end.size());
}

/// Base64, a header as encrypted keys have them (RFC 1421), or nothing.
bool isBlockLine(const QString &line)
{
    static const QRegularExpression pattern(
        QStringLiteral("\\A(?:[A-Za-z0-9+/]*={0,2}|[A-Za-z0-9-]+: [!-;=-~ ]*)\\z"));
    return pattern.match(line).hasMatch();
}

QString withoutTrailingBlanks(const QString &line)
{
    int size = line.size();
    while (size > 0 && line.at(size - 1).isSpace())
        --size;
    return line.left(size);
}

} // namespace

bool isHost(const QString &text)
{
    return !text.isEmpty() && text.size() <= kLongestHost
        && std::all_of(text.begin(), text.end(), isHostCharacter);
}

bool isPem(const QString &text)
{
    if (!std::all_of(text.begin(), text.end(), isHarmless) || mayCloseInlineBlock(text))
        return false;

    QString open; // label of the block that the line is in
    int blocks = 0;
    for (const QString &whole : text.split(QLatin1Char('\n'))) {
        const QString line = withoutTrailingBlanks(whole);
        const QString begins = label(line, QStringLiteral("BEGIN"));
        const QString ends = label(line, QStringLiteral("END"));
        if (open.isEmpty()) {
            if (!ends.isEmpty())
                return false;
            open = begins;
        } else if (!ends.isEmpty()) {
            if (ends != open)
                return false;
            open.clear();
            ++blocks;
        } else if (!isBlockLine(line)) {
            return false;
        }
    }
    return open.isEmpty() && blocks > 0;
}

} // namespace vpncore
