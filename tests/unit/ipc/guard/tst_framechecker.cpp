#include "framechecker.h"

#include "frames.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtTest/QtTest>

using frames::kIpcInterface;
using frames::kServiceInterface;

namespace {

constexpr int kLengthBytes = 4;
constexpr int kMaxFrameBytes = 262'144;

FrameChecker serviceChecker()
{
    return FrameChecker(ServiceInterfaceSource::staticMetaObject);
}

FrameChecker mainChecker()
{
    return FrameChecker(IpcInterfaceSource::staticMetaObject);
}

/// @return what the checker says about @p bytes, given all at once.
QString violationOf(FrameChecker checker, const QByteArray &bytes)
{
    const QByteArray passed = checker.check(bytes);
    return passed == (checker.violation().isEmpty() ? bytes : QByteArray())
        ? checker.violation()
        : QStringLiteral("other bytes passed");
}

VpnServerInformation server()
{
    VpnServerInformation server;
    server.name = QStringLiteral("Example");
    server.id = 7;
    server.host = QStringLiteral("vpn.example.net");
    server.ca = server.cert = server.key = QStringLiteral("-----BEGIN\nY2E=\n-----END\n");
    server.udpPort = 1194;
    return server;
}

QByteArray number(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

/// @return the frame with the four bytes at @p position replaced.
QByteArray withNumber(QByteArray frame, int position, quint32 value)
{
    return frame.replace(position, 4, number(value));
}

} // namespace

/// What of a client's bytes reaches Remote Objects. That clients really send such frames is shown
/// with the checked connection.
class FrameCheckerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// First, since nothing has registered the record yet.
    void recordThatIsNotRegisteredIsNotLoaded()
    {
        QCOMPARE(violationOf(serviceChecker(), frames::vpnCommand(QStringLiteral("{}"))),
                 QStringLiteral("a frame of type 6: the slot takes other arguments"));
        qRegisterMetaTypeStreamOperators<VpnServerInformation>("VpnServerInformation");
    }

    void everyFrameThatClientsHaveReasonForPasses_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::newRow("add object") << frames::addObject(kServiceInterface);
        QTest::newRow("remove object") << frames::removeObject(kServiceInterface);
        QTest::newRow("ping") << frames::ping(kServiceInterface);
        QTest::newRow("heartbeat") << frames::serverSlot(false);
        QTest::newRow("command") << frames::vpnCommand(QStringLiteral("{}"), server());
        QTest::newRow("command with null texts") << frames::vpnCommand(QString());
        QTest::newRow("command that is no JSON") << frames::vpnCommand(QString(1000, QChar(0)));
        QTest::newRow("replica that was removed comes back") << frames::addObject(kServiceInterface)
                + frames::removeObject(kServiceInterface) + frames::addObject(kServiceInterface);
    }

    void everyFrameThatClientsHaveReasonForPasses()
    {
        QFETCH(QByteArray, frame);
        QCOMPARE(violationOf(serviceChecker(), frame), QString());
    }

    void anythingElseIsAViolation_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QString>("violation");
        const auto row = [](const char *name, const QByteArray &frame, const char *violation) {
            QTest::newRow(name) << frame << QString::fromLatin1(violation);
        };
        const QByteArray state = frames::argument(true);
        const QByteArray text = frames::argument(QStringLiteral("{}"));
        const QByteArray record = frames::argument(server());
        const auto call = [](int slot, quint32 count, const QByteArray &arguments) {
            return frames::invoke(kServiceInterface, slot, count, arguments);
        };

        // 1 is a host's handshake, 11 its pong.
        for (int type : {0, 1, 2, 3, 7, 8, 9, 11, 12, 13, 0xffff}) {
            QTest::newRow(qPrintable(QStringLiteral("type %1").arg(type)))
                << frames::packet(static_cast<quint16>(type), kServiceInterface)
                << QStringLiteral("a frame of type %1: clients have no reason to send it")
                       .arg(type);
        }
        row("empty frame", number(0), "a frame of type 0: its content is longer than the frame");
        row("half a type", frames::frame(QByteArray(1, '\0')),
            "a frame of type 0: its content is longer than the frame");
        row("type and nothing else", frames::frame(QByteArray("\0\6", 2)),
            "a frame of type 6: its content is longer than the frame");

        for (int type : {4, 5, 6, 10}) {
            QTest::newRow(qPrintable(QStringLiteral("type %1 for another object").arg(type)))
                << frames::packet(static_cast<quint16>(type), kIpcInterface)
                << QStringLiteral("a frame of type %1: it is not for ServiceInterface").arg(type);
        }
        row("ping for no object", frames::packet(10, QString()),
            "a frame of type 10: it is not for ServiceInterface");
        row("ping for an object with a longer name",
            frames::packet(10, kServiceInterface + QLatin1Char('2')),
            "a frame of type 10: it is not for ServiceInterface");
        row("ping for an object in another letter case",
            frames::packet(10, kServiceInterface.toLower()),
            "a frame of type 10: it is not for ServiceInterface");

        row("name longer than the frame",
            withNumber(frames::ping(kServiceInterface), 6, 0x7ffffffe),
            "a frame of type 10: its content is longer than the frame");
        row("name of an odd length", withNumber(frames::ping(kServiceInterface), 6, 31),
            "a frame of type 10: its content is longer than the frame");
        row("bytes behind a ping", frames::packet(10, kServiceInterface, "A"),
            "a frame of type 10: the frame is longer than its content");
        row("add object without its flag", frames::packet(4, kServiceInterface),
            "a frame of type 4: its content is longer than the frame");
        row("second replica",
            frames::addObject(kServiceInterface) + frames::addObject(kServiceInterface),
            "a frame of type 4: the client has a replica already");

        row("property instead of a slot",
            frames::packet(6, kServiceInterface, number(1) + number(0) + number(0) + number(0)),
            "a frame of type 6: it calls no slot");
        row("slot beyond the last", call(2, 0, {}), "a frame of type 6: there is no such slot");
        row("negative slot", call(-1, 0, {}), "a frame of type 6: there is no such slot");
        row("no argument", call(0, 0, {}),
            "a frame of type 6: the slot takes another number of arguments");
        row("one argument too many", call(0, 2, state + state),
            "a frame of type 6: the slot takes another number of arguments");
        row("two thousand million arguments", call(1, 0x7fffffff, {}),
            "a frame of type 6: the slot takes another number of arguments");
        row("text instead of a state", call(0, 1, text),
            "a frame of type 6: the slot takes other arguments");
        row("state instead of a text", call(1, 2, state + record),
            "a frame of type 6: the slot takes other arguments");
        row("text instead of a record", call(1, 2, text + text),
            "a frame of type 6: the slot takes other arguments");
        row("arguments in the wrong order", call(1, 2, record + text),
            "a frame of type 6: the slot takes other arguments");
        row("record of another type",
            call(1, 2, text + QByteArray(record).replace("VpnServer", "VpnClient")),
            "a frame of type 6: the slot takes other arguments");
        row("record of a type whose name begins alike",
            call(1, 2, text + withNumber(record, 5, 20)),
            "a frame of type 6: the slot takes other arguments");
        row("record with the number of another type",
            call(1, 2, text + withNumber(record, 0, 1025)),
            "a frame of type 6: the slot takes other arguments");
        row("record of a type with a long name",
            call(1, 2, text + withNumber(record, 5, 0x7fffffff)),
            "a frame of type 6: its content is longer than the frame");
        row("text of the record longer than the frame",
            call(1, 2, text + withNumber(record, 9 + 21, 0x7ffffffe)),
            "a frame of type 6: its content is longer than the frame");
        row("record cut short", call(1, 2, text + record.left(record.size() - 9)),
            "a frame of type 6: its content is longer than the frame");
        row("record with more behind it", call(1, 2, text + record + "A"),
            "a frame of type 6: the frame is longer than its content");
        row("slot of the other interface", frames::createPrivilegedProcess(),
            "a frame of type 6: it is not for ServiceInterface");
    }

    void anythingElseIsAViolation()
    {
        QFETCH(QByteArray, frame);
        QFETCH(QString, violation);
        QCOMPARE(violationOf(serviceChecker(), frame), violation);
    }

    void mainInterfaceHasOneSlot()
    {
        QCOMPARE(violationOf(mainChecker(), frames::createPrivilegedProcess()), QString());
        QCOMPARE(violationOf(mainChecker(), frames::serverSlot(true)),
                 QStringLiteral("a frame of type 6: it is not for IpcInterface"));
        QCOMPARE(violationOf(mainChecker(), frames::invoke(kIpcInterface, 1, 0, {})),
                 QStringLiteral("a frame of type 6: there is no such slot"));
    }

    void frameOf256KiBPasses()
    {
        // Two bytes a character and an odd rest: one byte less is as near as a command comes.
        const int rest = frames::vpnCommand(QString()).size() - kLengthBytes;
        const QByteArray frame =
            frames::vpnCommand(QString((kMaxFrameBytes - rest) / 2, QLatin1Char('A')));
        QCOMPARE(frame.size(), kLengthBytes + kMaxFrameBytes - 1);
        QCOMPARE(violationOf(serviceChecker(), frame), QString());
    }

    void frameOf256KiBIsHeldUntilItIsWhole()
    {
        FrameChecker checker = serviceChecker();
        checker.check(number(kMaxFrameBytes));
        QCOMPARE(checker.heldBytes(), kLengthBytes);
        checker.check(QByteArray(kMaxFrameBytes - 1, '\0'));
        QCOMPARE(checker.violation(), QString());
        QCOMPARE(checker.heldBytes(), kLengthBytes + kMaxFrameBytes - 1);
        checker.check(QByteArray(1, '\0')); // whole, and of type 0
        QVERIFY(!checker.violation().isEmpty());
        QCOMPARE(checker.heldBytes(), 0);
    }

    void longerFrameIsRefusedAtItsLength()
    {
        FrameChecker checker = serviceChecker();
        checker.check(number(kMaxFrameBytes + 1).left(3));
        QCOMPARE(checker.violation(), QString());
        checker.check(number(kMaxFrameBytes + 1).right(1));
        QCOMPARE(checker.violation(), QStringLiteral("a frame of 262145 bytes is too long"));
        QCOMPARE(violationOf(serviceChecker(), number(0xffffffff)),
                 QStringLiteral("a frame of 4294967295 bytes is too long"));
    }

    void nothingPassesAfterAViolation()
    {
        FrameChecker checker = serviceChecker();
        QCOMPARE(checker.check(frames::serverSlot(true) + frames::createPrivilegedProcess()),
                 QByteArray());
        QCOMPARE(checker.check(frames::serverSlot(true)), QByteArray());
        QCOMPARE(checker.violation(),
                 QStringLiteral("a frame of type 6: it is not for ServiceInterface"));
    }

    void cuttingTheStreamChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("stream");
        const QByteArray all = frames::addObject(kServiceInterface) + frames::serverSlot(true)
            + frames::vpnCommand(QStringLiteral("{}"), server()) + frames::ping(kServiceInterface)
            + frames::removeObject(kServiceInterface);
        QTest::newRow("good frames") << all;
        QTest::newRow("violation at the end") << all + frames::packet(3, kServiceInterface);
        QTest::newRow("violation in the middle")
            << all + frames::packet(3, kServiceInterface) + all;
        QTest::newRow("unfinished frame") << all + all.left(20);
        QTest::newRow("too long a frame") << all + number(0xfffffff0) + all;
    }

    void cuttingTheStreamChangesNothing()
    {
        QFETCH(QByteArray, stream);
        FrameChecker whole = serviceChecker();
        const QByteArray passed = whole.check(stream);
        for (int piece : {1, 2, 3, 4, 5, 7, 64, 255}) {
            FrameChecker checker = serviceChecker();
            QByteArray passedInPieces;
            for (int position = 0; position < stream.size(); position += piece)
                passedInPieces += checker.check(stream.mid(position, piece));
            QCOMPARE(checker.violation(), whole.violation());
            QCOMPARE(checker.heldBytes(), whole.heldBytes());
            // What came before a violation may have passed before it was seen.
            if (whole.violation().isEmpty())
                QCOMPARE(passedInPieces, passed);
            else
                QVERIFY(stream.startsWith(passedInPieces));
        }
    }

    /// The same call again is not looked at anew, anything else is.
    void callThatComesAgainPassesAndNothingElseInItsPlace()
    {
        const QByteArray call = frames::serverSlot(true);
        for (int i = 4; i < call.size(); ++i) {
            FrameChecker checker = serviceChecker();
            QCOMPARE(checker.check(call), call);
            QCOMPARE(checker.check(call), call);
            QByteArray other = call;
            other[i] = char(~other.at(i));
            QCOMPARE(checker.check(other).isEmpty(),
                     !violationOf(serviceChecker(), other).isEmpty());
        }
    }

    void everyFrameCutShortIsRefused()
    {
        const QByteArray frame = frames::vpnCommand(QStringLiteral("{}"), server());
        for (int size = 0; size < frame.size() - kLengthBytes; ++size) {
            const QByteArray body = frame.mid(kLengthBytes, size);
            QVERIFY2(!violationOf(serviceChecker(), frames::frame(body)).isEmpty(),
                     qPrintable(QString::number(size)));
        }
    }
};

QTEST_GUILESS_MAIN(FrameCheckerTest)
#include "tst_framechecker.moc"
