#pragma once

#include <QtCore/QByteArray>

#include <cstddef>
#include <cstdint>

/// What the fuzz targets share.
namespace fuzz {

/// Creates what the product expects of its process, once: an application object, and a log that
/// says nothing.
void prepare();

/// Ends the process with a message, so that libFuzzer keeps the input.
[[noreturn]] void fail(const char *what, const QByteArray &details = {});

/// Takes an input apart.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size);

    /// @return the next byte, 0 at the end.
    quint8 byte();

    /// @return the next four bytes as a number.
    qint32 number();

    /// @return the bytes up to the next zero byte, which is skipped, or to the end.
    QByteArray upToNul();

    /// @return all that is left.
    QByteArray rest();

private:
    QByteArray m_bytes;
    int m_position = 0;
};

} // namespace fuzz
