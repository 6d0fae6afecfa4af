#include "fuzzsupport.h"

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace {

void sayNothing(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

namespace fuzz {

void prepare()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
    static const QtMessageHandler handler = qInstallMessageHandler(sayNothing);
    Q_UNUSED(handler)
}

void fail(const char *what, const QByteArray &details)
{
    std::fprintf(stderr, "%s\n%s\n", what, details.constData());
    std::abort();
}

Input::Input(const std::uint8_t *data, std::size_t size)
    : m_bytes(reinterpret_cast<const char *>(data), static_cast<int>(size))
{
}

quint8 Input::byte()
{
    return m_position < m_bytes.size() ? static_cast<quint8>(m_bytes.at(m_position++)) : quint8(0);
}

qint32 Input::number()
{
    quint32 number = 0;
    for (int i = 0; i < 4; ++i)
        number = number << 8 | byte();
    return static_cast<qint32>(number);
}

QByteArray Input::upToNul()
{
    const int end = m_bytes.indexOf('\0', m_position);
    const QByteArray bytes = m_bytes.mid(m_position, end < 0 ? -1 : end - m_position);
    m_position = end < 0 ? m_bytes.size() : end + 1;
    return bytes;
}

QByteArray Input::rest()
{
    const QByteArray bytes = m_bytes.mid(m_position);
    m_position = m_bytes.size();
    return bytes;
}

} // namespace fuzz
