#pragma once

#include <QtCore/QCoreApplication>
#include <QtCore/QTranslator>

namespace lab {

/// Translates one text for the program, while it lives.
class Translation : public QTranslator
{
public:
    Translation(const QString &source, const QString &translation)
        : m_source(source)
        , m_translation(translation)
    {
        QCoreApplication::installTranslator(this);
    }

    bool isEmpty() const override { return false; }
    QString translate(const char *, const char *source, const char *, int) const override
    {
        return QString::fromUtf8(source) == m_source ? m_translation : QString();
    }

private:
    QString m_source;
    QString m_translation;
};

} // namespace lab
