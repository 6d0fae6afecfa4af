#pragma once

#include <QtCore/QList>
#include <QtCore/QObject>

/// Watches which objects of its process are made while it lives; one at a time. It takes the places
/// that Qt keeps for debuggers.
class ObjectWatch
{
public:
    ObjectWatch();
    ~ObjectWatch();
    ObjectWatch(const ObjectWatch &) = delete;
    ObjectWatch &operator=(const ObjectWatch &) = delete;

    /// @return those that are still there, in any order.
    static QList<QObject *> objects();
};
