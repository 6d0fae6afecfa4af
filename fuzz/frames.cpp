/// The frame checker: the first byte chooses the interface, the rest is what a client sends.
///
/// However the bytes are cut, the verdict is the same; what passes is what came, in whole frames;
/// and nothing that passes makes QDataStream read beyond its frame.

#include "fuzzsupport.h"
#include "framechecker.h"
#include "vpnserverinformation.h"

#include <QtCore/QDataStream>
#include <QtCore/QVariant>
#include <QtCore/QtEndian>

namespace {

constexpr quint16 kInvoke = 6;
constexpr quint32 kMostArguments = 2;

RemoteInterface interfaceOf(quint8 choice)
{
    return choice % 2 == 0 ? RemoteInterface::ipcInterface() : RemoteInterface::serviceInterface();
}

/// Reads an invoke as Remote Objects does, with QDataStream and without any doubt.
void readInvoke(QDataStream &stream)
{
    qint32 call = 0;
    qint32 index = 0;
    quint32 count = 0;
    stream >> call >> index >> count;
    if (count > kMostArguments)
        fuzz::fail("an invoke with too many arguments passed");
    for (quint32 i = 0; i < count; ++i) {
        // As QVariant reads itself, but for the record, which would have to be registered.
        const QByteArray type = stream.device()->peek(4);
        if (qFromBigEndian<quint32>(type.constData()) == QMetaType::User) {
            quint32 number = 0;
            quint8 isNull = 0;
            char *name = nullptr;
            VpnServerInformation record;
            stream >> number >> isNull >> name >> record;
            delete[] name;
        } else {
            QVariant value;
            stream >> value;
        }
    }
    qint32 serial = 0;
    qint32 property = 0;
    stream >> serial >> property;
    if (!stream.atEnd())
        fuzz::fail("an invoke that is longer than its content passed");
}

void readFrames(const QByteArray &passed)
{
    int position = 0;
    while (position < passed.size()) {
        const auto size = qFromBigEndian<quint32>(passed.constData() + position);
        const QByteArray body = passed.mid(position + 4, static_cast<int>(size));
        if (static_cast<quint32>(body.size()) != size)
            fuzz::fail("half a frame passed");
        QDataStream stream(body);
        stream.setVersion(QDataStream::Qt_5_12);
        quint16 type = 0;
        QString name;
        stream >> type >> name;
        if (type == kInvoke)
            readInvoke(stream);
        if (stream.status() != QDataStream::Ok)
            fuzz::fail("a frame passed that QDataStream cannot read");
        position += 4 + body.size();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::prepare();
    fuzz::Input input(data, size);
    const RemoteInterface interface = interfaceOf(input.byte());
    const QByteArray bytes = input.rest();

    FrameChecker whole(interface);
    whole.feed(bytes);
    const QByteArray passed = whole.takeChecked();
    if (!bytes.startsWith(passed))
        fuzz::fail("what passed is not what came");
    if (whole.violation().isEmpty() && passed.size() + whole.heldBytes() != bytes.size())
        fuzz::fail("bytes got lost");
    readFrames(passed);

    FrameChecker inPieces(interface);
    QByteArray passedInPieces;
    const int piece = 1 + bytes.size() % 7;
    for (int position = 0; position < bytes.size(); position += piece) {
        inPieces.feed(bytes.mid(position, piece));
        passedInPieces += inPieces.takeChecked();
    }
    if (inPieces.violation() != whole.violation() || inPieces.heldBytes() != whole.heldBytes())
        fuzz::fail("cutting the bytes changed the verdict");
    readFrames(passedInPieces);
    return 0;
}
