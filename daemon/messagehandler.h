#pragma once

#include <QtCore/QFile>
#include <QtCore/QScopedPointer>

/// The file that messageHandler() writes to. Empty: the daemon logs to standard error and sets
/// none. A program that wants a log file opens one, puts it here and installs the handler.
extern QScopedPointer<QFile> m_logFile;

/// Writes a message as one line into m_logFile; without a file it does nothing.
///
/// For `qInstallMessageHandler`. A line reads "2024-05-01 10:11:12.345DBG default: text"; that no
/// blank stands between the time and the level is the format. The line is flushed at once. The
/// handler does not open, rotate or lock the file, and returns on a fatal message, too.
///
/// @param type decides the level: DBG, INF, WRN, CRT or FTL.
/// @param context only its category is written.
/// @param msg the text.
void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &msg);
