#include "messagehandler.h"

#include <QtCore/QDateTime>
#include <QtCore/QTextStream>

#include <array>

QScopedPointer<QFile> m_logFile;

namespace {

/// The levels in the order of QtMsgType.
constexpr std::array kLevelTags{"DBG ", "WRN ", "CRT ", "FTL ", "INF "};

} // namespace

void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &msg)
{
    if (!m_logFile)
        return;
    QTextStream line(m_logFile.data());
    line << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"))
         << (std::size_t(type) < kLevelTags.size() ? kLevelTags[type] : "") << context.category
         << ": " << msg << Qt::endl;
    // Qt::endl has flushed already. The second time is wanted: the line is out whatever ends it.
    line.flush();
}
