#pragma once

#include <QtCore/QByteArray>

/// QJsonDocument::fromJson() of Qt 5.15 loses memory: when a key comes again in the same object,
/// the earlier value is overwritten, and if that was an object or a list with anything in it,
/// nobody frees it (sortContainer() in qtbase/src/corelib/serialization/qjsonparser.cpp; measured
/// with 5.15.8). A client could make the daemon grow without end.
///
/// @param json UTF-8, valid or not.
/// @return whether parsing @p json would do that: a key whose value was an object or a list comes
///         again.
bool losesMemory(const QByteArray &json);
