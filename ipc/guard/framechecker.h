#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

/// What a client may call on a socket.
struct RemoteInterface
{
    enum class Argument { Bool, Text, ServerRecord };
    using Slot = QVector<Argument>;

    QString name; ///< as Remote Objects publishes it
    QVector<Slot> methods; ///< the slots in the order of the interface definition

    /// @return what ipcinterface.rep defines.
    static RemoteInterface ipcInterface();

    /// @return what serviceinterface.rep defines.
    static RemoteInterface serviceInterface();
};

/// Lets whole, well-formed Remote Objects frames pass and nothing else.
///
/// Remote Objects trusts its peer: it believes every length, count and type it reads. This stands
/// between a client and it, and knows exactly what a client of one interface has reason to send;
/// docs/protocol-frames.md describes the layout. After the first violation nothing passes.
class FrameChecker
{
public:
    /// The longest frame, without the four bytes of its own length.
    static constexpr quint32 kLongestFrame = 1024 * 1024;

    explicit FrameChecker(const RemoteInterface &interface);

    /// Takes the next bytes that the client sent, however they are cut.
    /// @return false when they, or any before them, violate the protocol.
    bool feed(QByteArray bytes);

    /// @return the bytes of the whole frames that have passed since the last call.
    QByteArray takeChecked();

    /// @return how many bytes of an unfinished frame are held.
    int heldBytes() const { return m_unfinished.size(); }

    /// @return what was wrong, in words for the log; empty when nothing was.
    QString violation() const { return m_violation; }

private:
    QString checkFrame(const char *frame, quint32 size);

    RemoteInterface m_interface;
    /// Every frame but the first names the interface, so its name is compared as it stands there.
    QByteArray m_nameInFrames;
    QByteArray m_unfinished;
    QByteArray m_checked;
    QString m_violation;
    bool m_isAttached = false;
};
