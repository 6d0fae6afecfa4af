#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

class QDataStream;
struct QMetaObject;

/// Lets whole, well-formed Remote Objects frames pass and nothing else.
///
/// Remote Objects trusts its peer: it believes every length, count and type it reads. This stands
/// between a client and it, and knows what a client of one interface has reason to send;
/// docs/protocol-frames.md describes the layout. After the first violation nothing passes.
class FrameChecker
{
public:
    /// @param source the meta-object of the interface's source class, as repc generates it: its
    ///        class information names the interface, its slots are what a client may call. The
    ///        types of their arguments must be registered with their stream operators, as the
    ///        constructor of a source does; calls with others are violations.
    explicit FrameChecker(const QMetaObject &source);

    /// Takes the next bytes that the client sent, however they are cut.
    /// @return the whole frames that have become complete and pass; empty when there is none, and
    ///         always when these bytes, or any before them, violate the protocol.
    QByteArray check(const QByteArray &bytes);

    /// @return how many bytes of an unfinished frame are held; at most guard::kMaxFrameBytes and
    ///         three.
    int heldBytes() const { return m_unfinished.size(); }

    /// @return what was wrong, in words for the log; empty when nothing was.
    QString violation() const { return m_violation; }

private:
    bool isUsual(const char *frame, quint32 size) const;
    QString violationOf(const QByteArray &frame);
    QString problemOf(quint16 type, QDataStream &stream);
    QString problemOfInvoke(QDataStream &stream) const;

    QString m_name;
    QVector<QVector<int>> m_slots; ///< the types of their arguments, by the calls' indices
    QByteArray m_usual; ///< the last short call that passed; clients send the same again and again
    QByteArray m_unfinished;
    QString m_violation;
    bool m_isAttached = false;
};
