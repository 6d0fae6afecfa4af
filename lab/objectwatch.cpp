#include "objectwatch.h"

#include <QtCore/QSet>

// Functions that are told of every QObject; Qt has no public header for them (qhooks_p.h).
extern Q_CORE_EXPORT quintptr qtHookData[];

namespace {

constexpr int kAddObjectHook = 3;
constexpr int kRemoveObjectHook = 4;

QSet<QObject *> made;

void noteMade(QObject *object)
{
    made.insert(object);
}

void noteGone(QObject *object)
{
    made.remove(object);
}

} // namespace

ObjectWatch::ObjectWatch()
{
    made.clear();
    qtHookData[kAddObjectHook] = reinterpret_cast<quintptr>(&noteMade);
    qtHookData[kRemoveObjectHook] = reinterpret_cast<quintptr>(&noteGone);
}

ObjectWatch::~ObjectWatch()
{
    qtHookData[kAddObjectHook] = 0;
    qtHookData[kRemoveObjectHook] = 0;
}

QList<QObject *> ObjectWatch::objects()
{
    return made.values();
}
