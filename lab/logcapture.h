#pragma once

#include <QtCore/QStringList>

/// Collects every message of Qt's log streams while it lives; one at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// @return the messages so far, in order.
    QStringList lines() const;

    /// @return the messages of one level.
    QStringList lines(QtMsgType type) const;

    int count(const QString &line) const;
    void clear();
};
