#include "logcapture.h"

#include <QtCore/QVector>

namespace {

struct Message
{
    QtMsgType type;
    QString text;
};

QVector<Message> messages;
QtMessageHandler formerHandler = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    messages.append({type, text});
    formerHandler(type, context, text);
}

} // namespace

LogCapture::LogCapture()
{
    messages.clear();
    formerHandler = qInstallMessageHandler(collect);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(formerHandler);
}

QStringList LogCapture::lines(std::optional<QtMsgType> type) const
{
    QStringList texts;
    for (const Message &message : qAsConst(messages)) {
        if (message.type == type.value_or(message.type))
            texts.append(message.text);
    }
    return texts;
}

int LogCapture::count(const QString &line) const
{
    return lines().count(line);
}

void LogCapture::clear()
{
    messages.clear();
}
