#include "openvpnparser.h"

#include <algorithm>

namespace openvpnparser {

namespace {

/// What fgets(3) puts into a buffer of 257 bytes. A line that fills it is refused.
constexpr int kLineLimit = 256;
constexpr int kBlockPieceBytes = 255; ///< within inline blocks, where nothing is refused
constexpr int kMaxWord = 255;
constexpr int kMaxWords = 16;

const char kUnreadable[] = "unreadable";

/// isspace(3) in the C locale.
bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

QByteArray withoutLeadingSpace(const QByteArray &piece)
{
    const auto *start = std::find_if_not(piece.begin(), piece.end(), isSpace);
    return piece.mid(static_cast<int>(start - piece.begin()));
}

class Pieces
{
public:
    explicit Pieces(const QByteArray &file)
        : m_file(file)
        , m_position(file.startsWith("\xEF\xBB\xBF") ? 3 : 0)
    {
    }

    bool isAtEnd() const { return m_position >= m_file.size(); }

    QByteArray next(int limit)
    {
        const int lineFeed = m_file.indexOf('\n', m_position);
        const int lineEnd = lineFeed < 0 ? m_file.size() : lineFeed + 1;
        const QByteArray piece = m_file.mid(m_position, std::min(lineEnd - m_position, limit));
        m_position += piece.size();
        return QByteArray(piece.constData()); // C reads no further than the first zero byte
    }

private:
    QByteArray m_file;
    int m_position;
};

/// Takes a line's words apart at blanks, quotes and comments.
class Words
{
public:
    explicit Words(const QByteArray &line)
    {
        for (const char c : line) {
            if (m_isComment || m_words.size() >= kMaxWords)
                break;
            take(c);
        }
        take('\0');
        if (m_state == Quoted || m_state == SingleQuoted)
            m_isReadable = false;
    }

    bool areReadable() const { return m_isReadable; }
    QByteArrayList list() const { return m_words; }

private:
    enum State { Between, Plain, Quoted, SingleQuoted };

    void take(char c)
    {
        if (c == '\\' && !m_isEscaped && m_state != SingleQuoted) {
            m_isEscaped = true;
            return;
        }
        const bool isEscaped = m_isEscaped;
        m_isEscaped = false;
        const bool isBlank = c == '\0' || isSpace(c);
        switch (m_state) {
        case Between:
            if (isBlank)
                return;
            if (c == ';' || c == '#') {
                m_isComment = true;
            } else if (!isEscaped && c == '"') {
                m_state = Quoted;
            } else if (!isEscaped && c == '\'') {
                m_state = SingleQuoted;
            } else {
                m_state = Plain;
                append(c, isEscaped);
            }
            return;
        case Plain:
            if (!isEscaped && isBlank)
                endWord();
            else
                append(c, isEscaped);
            return;
        case Quoted:
            if (!isEscaped && c == '"')
                endWord();
            else if (c != '\0')
                append(c, isEscaped);
            return;
        case SingleQuoted:
            if (c == '\'')
                endWord();
            else if (c != '\0')
                append(c, false);
            return;
        }
    }

    void append(char c, bool isEscaped)
    {
        if (isEscaped && c != '\\' && c != '"' && !isSpace(c))
            m_isReadable = false;
        m_word += c;
        if (m_word.size() > kMaxWord)
            m_isReadable = false;
    }

    void endWord()
    {
        m_words.append(m_word);
        m_word.clear();
        m_state = Between;
    }

    QByteArrayList m_words;
    QByteArray m_word;
    State m_state = Between;
    bool m_isEscaped = false;
    bool m_isComment = false;
    bool m_isReadable = true;
};

bool opensBlock(const QByteArrayList &words)
{
    return words.size() == 1 && words.first().size() > 2 && words.first().startsWith('<')
        && words.first().endsWith('>');
}

Directive readBlock(const QByteArray &tag, Pieces &pieces)
{
    Directive directive;
    directive.isBlock = true;
    directive.words.append(tag);
    const QByteArray closingTag = "</" + tag + '>';
    while (!pieces.isAtEnd()) {
        const QByteArray piece = pieces.next(kBlockPieceBytes);
        if (withoutLeadingSpace(piece).startsWith(closingTag))
            return directive;
        directive.block += piece;
    }
    directive.isClosed = false;
    return directive;
}

} // namespace

bool Directive::operator==(const Directive &other) const
{
    return words == other.words && block == other.block && isBlock == other.isBlock
        && isClosed == other.isClosed;
}

QVector<Directive> parse(const QByteArray &file)
{
    QVector<Directive> directives;
    Pieces pieces(file);
    while (!pieces.isAtEnd()) {
        const QByteArray line = pieces.next(kLineLimit);
        const Words words(line);
        Directive directive;
        if (line.size() == kLineLimit || !words.areReadable()) {
            directive.words = {kUnreadable, line};
            directives.append(directive);
            break;
        }
        if (opensBlock(words.list())) {
            const QByteArray tag = words.list().first();
            directive = readBlock(tag.mid(1, tag.size() - 2), pieces);
        } else {
            directive.words = words.list();
            if (!directive.words.isEmpty() && directive.words.first().size() > 2
                && directive.words.first().startsWith("--"))
                directive.words.first().remove(0, 2);
        }
        if (!directive.words.isEmpty())
            directives.append(directive);
    }
    return directives;
}

QByteArray toText(const QVector<Directive> &directives)
{
    QByteArray text;
    for (const Directive &directive : directives) {
        text += directive.words.join(" | ");
        if (directive.isBlock)
            text += " = " + directive.block.toPercentEncoding(" +/=-:");
        if (!directive.isClosed)
            text += " (to the end of the file)";
        text += '\n';
    }
    return text;
}

} // namespace openvpnparser
