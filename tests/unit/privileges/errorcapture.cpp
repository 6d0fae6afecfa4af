#include "errorcapture.h"

#include <QtCore/QRegularExpression>

#include <unistd.h>

ErrorCapture::ErrorCapture()
{
    fflush(stderr);
    m_standardError = dup(STDERR_FILENO);
    if (!m_file.open() || m_standardError < 0 || dup2(m_file.handle(), STDERR_FILENO) < 0)
        qFatal("cannot catch standard error");
}

ErrorCapture::~ErrorCapture()
{
    fflush(stderr);
    dup2(m_standardError, STDERR_FILENO);
    close(m_standardError);
}

QStringList ErrorCapture::lines()
{
    fflush(stderr);
    QFile file(m_file.fileName());
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read what was caught of standard error");
    QStringList lines =
        QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    static const QRegularExpression prefix(
        QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \S+\[\d+:\d+\] )"));
    for (QString &line : lines) {
        const QRegularExpressionMatch match = prefix.match(line);
        line = match.hasMatch() ? line.mid(match.capturedLength())
                                : QStringLiteral("not from NSLog: ") + line;
    }
    return lines;
}
