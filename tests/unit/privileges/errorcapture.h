#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTemporaryFile>

/// Catches what this process writes to standard error while it lives: that is where NSLog writes.
class ErrorCapture
{
public:
    ErrorCapture();
    ~ErrorCapture();
    ErrorCapture(const ErrorCapture &) = delete;
    ErrorCapture &operator=(const ErrorCapture &) = delete;

    /// @return the lines so far. Of a line of NSLog, the text behind date, program and process; any
    ///         other line as it is, marked as not from NSLog.
    QStringList lines();

private:
    QTemporaryFile m_file;
    int m_standardError = -1;
};
