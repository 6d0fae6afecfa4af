#include "jsonleak.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QSet>

#include <vector>

namespace {

/// An object or a list that is open at some place of the text.
struct Level
{
    bool isObject;
    QString key; ///< the latest
    QSet<QString> containers; ///< keys of objects and lists
};

/// @return the end of the text that begins at @p start, where its second quote should be.
int endOfText(const QByteArray &json, int start)
{
    while (start < json.size() && json.at(start) != '"')
        start += json.at(start) == '\\' ? 2 : 1;
    return start;
}

/// @param text what stands between the quotes.
QString unescaped(const QByteArray &text)
{
    return QJsonDocument::fromJson("[\"" + text + "\"]").array().at(0).toString();
}

} // namespace

bool losesMemory(const QByteArray &json)
{
    if (json.count('{') + json.count('[') < 2) // as in every command; there is nothing to lose
        return false;
    std::vector<Level> levels;
    bool isKeyNext = false;
    for (int i = 0; i < json.size(); ++i) {
        const char character = json.at(i);
        if (character == '{' || character == '[') {
            isKeyNext = character == '{';
            if (!levels.empty())
                levels.back().containers.insert(levels.back().key);
            levels.push_back({isKeyNext, {}, {}});
        } else if (character == '}' || character == ']') {
            if (!levels.empty())
                levels.pop_back();
            isKeyNext = false;
        } else if (character == ',') {
            isKeyNext = !levels.empty() && levels.back().isObject;
        } else if (character == '"') {
            const int start = i + 1;
            i = endOfText(json, start);
            if (std::exchange(isKeyNext, false)) {
                levels.back().key = unescaped(json.mid(start, i - start));
                if (levels.back().containers.contains(levels.back().key))
                    return true;
            }
        }
    }
    return false;
}
