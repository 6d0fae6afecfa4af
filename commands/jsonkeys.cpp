#include "jsonkeys.h"

#include <QtCore/QSet>

#include <vector>

namespace {

/// Walks through a text up to its end, well-formed or not.
class KeyScanner
{
public:
    explicit KeyScanner(const QByteArray &json)
        : m_json(json)
    {
    }

    bool findsRepeatedKey()
    {
        for (m_position = 0; m_position < m_json.size(); ++m_position) {
            switch (m_json.at(m_position)) {
            case '{':
            case '[':
                m_levels.push_back({m_json.at(m_position) == '{', {}});
                m_isKeyNext = m_levels.back().isObject;
                break;
            case '}':
            case ']':
                if (!m_levels.empty())
                    m_levels.pop_back();
                m_isKeyNext = false;
                break;
            case ',':
                m_isKeyNext = !m_levels.empty() && m_levels.back().isObject;
                break;
            case '"':
                if (isRepeated(readText()))
                    return true;
                break;
            default:
                break;
            }
        }
        return false;
    }

private:
    struct Level
    {
        bool isObject;
        QSet<QByteArray> keys;
    };

    /// @return what is between the quotes, as it stands; the position is then at the second one.
    QByteArray readText()
    {
        const int start = ++m_position;
        while (m_position < m_json.size() && m_json.at(m_position) != '"')
            m_position += m_json.at(m_position) == '\\' ? 2 : 1;
        return m_json.mid(start, m_position - start);
    }

    bool isRepeated(const QByteArray &text)
    {
        if (!m_isKeyNext)
            return false;
        m_isKeyNext = false;
        QSet<QByteArray> &keys = m_levels.back().keys;
        if (text.contains('\\') || keys.contains(text))
            return true;
        keys.insert(text);
        return false;
    }

    const QByteArray &m_json;
    int m_position = 0;
    std::vector<Level> m_levels;
    bool m_isKeyNext = false;
};

} // namespace

bool mayRepeatKeyOfContainer(const QByteArray &json)
{
    return json.count('{') + json.count('[') > 1 && KeyScanner(json).findsRepeatedKey();
}
