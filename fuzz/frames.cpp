/// The frame checker: the first byte chooses the interface, the rest is what a client sends.
///
/// However the bytes are cut, the verdict is the same; what passes is what came, in whole frames;
/// and nothing that passes makes Remote Objects read beyond its frame.

#include "framechecker.h"
#include "fuzzsupport.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtCore/QVariant>

namespace {

/// Reads what has passed as Remote Objects does, without any doubt.
void readFrames(const QByteArray &passed)
{
    constexpr quint16 kInvoke = 6;
    QDataStream all(passed);
    while (!all.atEnd()) {
        QByteArray frame;
        all >> frame; // which has its length in front as well
        QDataStream stream(frame);
        stream.setVersion(QDataStream::Qt_5_12);
        quint16 type = 0;
        QString name;
        stream >> type >> name;
        if (type == kInvoke) {
            qint32 number = 0;
            QVariantList arguments;
            stream >> number >> number >> arguments >> number >> number;
            if (!stream.atEnd())
                fuzz::fail("an invoke that is longer than its content passed");
        }
        if (all.status() != QDataStream::Ok || stream.status() != QDataStream::Ok)
            fuzz::fail("a frame passed that cannot be read");
    }
}

} // namespace

void fuzz::run(const QByteArray &input)
{
    qRegisterMetaTypeStreamOperators<VpnServerInformation>("VpnServerInformation");
    const QMetaObject &interface = input.isEmpty() || input.at(0) % 2 == 0
        ? IpcInterfaceSource::staticMetaObject
        : ServiceInterfaceSource::staticMetaObject;
    const QByteArray bytes = input.mid(1);

    FrameChecker whole(interface);
    const QByteArray passed = whole.check(bytes);
    if (!bytes.startsWith(passed))
        fail("what passed is not what came");
    if (whole.violation().isEmpty() && passed.size() + whole.heldBytes() != bytes.size())
        fail("bytes got lost");
    readFrames(passed);

    FrameChecker inPieces(interface);
    QByteArray passedInPieces;
    const int piece = 1 + bytes.size() % 7;
    for (int position = 0; position < bytes.size(); position += piece)
        passedInPieces += inPieces.check(bytes.mid(position, piece));
    if (inPieces.violation() != whole.violation() || inPieces.heldBytes() != whole.heldBytes())
        fail("cutting the bytes changed the verdict");
    readFrames(passedInPieces);
}
