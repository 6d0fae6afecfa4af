#pragma once

#include <QtCore/QByteArray>

/// QJsonDocument of Qt 5.15 loses the memory of an object or a list whose key comes again in the
/// same object, so a client could make the daemon grow without end.
///
/// @param json UTF-8, valid or not.
/// @return whether parsing @p json might do that: it has objects or lists within others, and one of
///         its objects repeats a key, or has a key with an escape, which may stand for any other.
bool mayRepeatKeyOfContainer(const QByteArray &json);
