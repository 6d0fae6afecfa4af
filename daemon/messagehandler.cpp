#include "messagehandler.h"

#include <QtCore/QDateTime>
#include <QtCore/QTextStream>

QScopedPointer<QFile> m_logFile;

namespace {

const char *levelTag(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "DBG ";
    case QtInfoMsg:
        return "INF ";
    case QtWarningMsg:
        return "WRN ";
    case QtCriticalMsg:
        return "CRT ";
    case QtFatalMsg:
        return "FTL ";
    }
    return "";
}

} // namespace

void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &msg)
{
    if (!m_logFile)
        return;
    QTextStream line(m_logFile.data());
    line << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"))
         << levelTag(type) << context.category << ": " << msg << Qt::endl;
    // Qt::endl has flushed already. The second time is wanted: the line is out whatever ends it.
    line.flush();
}
