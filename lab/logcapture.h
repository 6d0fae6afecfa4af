#pragma once

#include <QtCore/QStringList>

#include <optional>

/// Collects every message of Qt's log streams while it lives; one at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// @return the messages so far, of one level or of all, in order.
    QStringList lines(std::optional<QtMsgType> type = {}) const;

    int count(const QString &line) const;
    void clear();
};
