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
    server.ca = server.cert = server.key = QStringLiteral("-----BEGIN\nY2E=\n-----END\n");
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

    void onlyWhatClientsHaveReasonForPasses_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QString>("violation");
        const auto row = [](const char *name, const QByteArray &frame, const char *violation) {
            QTest::newRow(name) << frame << QString::fromLatin1(violation);
        };
        const QByteArray add = frames::addObject(kServiceInterface);
        const QByteArray state = frames::argument(true);
        const QByteArray text = frames::argument(QStringLiteral("{}"));
        const QByteArray record = frames::argument(server());
        const auto call = [](int slot, quint32 count, const QByteArray &arguments) {
            return frames::invoke(kServiceInterface, slot, count, arguments);
        };

        row("replica that comes back", add + frames::removeObject(kServiceInterface) + add, "");
        row("ping", frames::ping(kServiceInterface), "");
        row("heartbeat", frames::serverSlot(false), "");
        row("command", frames::vpnCommand(QStringLiteral("{}"), server()), "");
        row("command with null texts", frames::vpnCommand(QString()), "");

        // 1 is a host's handshake, 11 its pong.
        for (int type : {0, 1, 2, 3, 7, 8, 9, 11, 12, 13, 0xffff}) {
            QTest::newRow(qPrintable(QStringLiteral("type %1").arg(type)))
                << frames::packet(static_cast<quint16>(type), kServiceInterface)
                << QStringLiteral("a frame of type %1: clients have no reason to send it")
                       .arg(type);
        }
        for (int type : {4, 5, 6, 10}) {
            QTest::newRow(qPrintable(QStringLiteral("type %1 for another object").arg(type)))
                << frames::packet(static_cast<quint16>(type), kIpcInterface)
                << QStringLiteral("a frame of type %1: it is not for ServiceInterface").arg(type);
        }
        row("object with a longer name", frames::ping(QStringLiteral("ServiceInterface2")),
            "a frame of type 10: it is not for ServiceInterface");
        row("second replica", add + add, "a frame of type 4: the client has a replica already");

        const char *const kCutShort = "a frame of type 6: its content is longer than the frame";
        row("empty frame", number(0), "a frame of type 0: its content is longer than the frame");
        row("half a type", frames::frame("\1"),
            "a frame of type 0: its content is longer than the frame");
        row("name longer than the frame",
            withNumber(frames::ping(kServiceInterface), 6, 0x7ffffffe),
            "a frame of type 10: its content is longer than the frame");
        row("type with a name longer than the frame",
            call(1, 2, text + withNumber(record, 5, 0x7fffffff)), kCutShort);
        row("text longer than the frame", call(1, 2, text + withNumber(record, 9 + 21, 0x7ffffffe)),
            kCutShort);
        row("record cut short", call(1, 2, text + record.left(record.size() - 9)), kCutShort);
        row("bytes behind a ping", frames::packet(10, kServiceInterface, "A"),
            "a frame of type 10: the frame is longer than its content");
        row("bytes behind a record", call(1, 2, text + record + "A"),
            "a frame of type 6: the frame is longer than its content");

        row("property instead of a slot",
            frames::packet(6, kServiceInterface, number(1) + number(0) + number(0) + number(0)),
            "a frame of type 6: it calls no slot");
        row("slot beyond the last", call(2, 0, {}), "a frame of type 6: there is no such slot");
        row("negative slot", call(-1, 0, {}), "a frame of type 6: there is no such slot");
        const char *const kNumber = "a frame of type 6: the slot takes another number of arguments";
        row("no argument", call(0, 0, {}), kNumber);
        row("one argument too many", call(0, 2, state + state), kNumber);
        row("two thousand million arguments", call(1, 0x7fffffff, {}), kNumber);
        const char *const kOthers = "a frame of type 6: the slot takes other arguments";
        row("text instead of a state", call(0, 1, text), kOthers);
        row("text instead of a record", call(1, 2, text + text), kOthers);
        row("arguments in the wrong order", call(1, 2, record + text), kOthers);
        row("record of another type",
            call(1, 2, text + QByteArray(record).replace("VpnServer", "VpnClient")), kOthers);
        row("record of a type whose name begins alike",
            call(1, 2, text + withNumber(record, 5, 20)), kOthers);
        row("record with the number of another type",
            call(1, 2, text + withNumber(record, 0, 1025)), kOthers);
    }

    void onlyWhatClientsHaveReasonForPasses()
    {
        QFETCH(QByteArray, frame);
        QFETCH(QString, violation);
        QCOMPARE(violationOf(serviceChecker(), frame), violation);
    }

    void frameOf256KiBIsHeldUntilItIsWhole()
    {
        FrameChecker checker = serviceChecker();
        checker.check(number(kMaxFrameBytes) + QByteArray(kMaxFrameBytes - 1, '\0'));
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

    void cuttingTheStreamChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("stream");
        const QByteArray all = frames::addObject(kServiceInterface) + frames::serverSlot(true)
            + frames::vpnCommand(QStringLiteral("{}"), server()) + frames::ping(kServiceInterface)
            + frames::removeObject(kServiceInterface);
        QTest::newRow("good frames, the last unfinished") << all + all.left(20);
        QTest::newRow("violation in the middle")
            << all + frames::packet(3, kServiceInterface) + all;
        QTest::newRow("too long a frame") << all + number(0xfffffff0) + all;
    }

    void cuttingTheStreamChangesNothing()
    {
        QFETCH(QByteArray, stream);
        FrameChecker whole = serviceChecker();
        const QByteArray passed = whole.check(stream);
        const bool isGood = whole.violation().isEmpty();
        QCOMPARE(passed.isEmpty(), !isGood);
        if (!isGood) // nothing passes after it
            QCOMPARE(whole.check(frames::serverSlot(true)), QByteArray());
        for (int piece : {1, 2, 3, 4, 5, 7, 64, 255}) {
            FrameChecker checker = serviceChecker();
            QByteArray passedInPieces;
            for (int position = 0; position < stream.size(); position += piece)
                passedInPieces += checker.check(stream.mid(position, piece));
            QCOMPARE(checker.violation().isEmpty(), isGood);
            // Frames before the violation may have passed already.
            QVERIFY(isGood ? passedInPieces == passed : stream.startsWith(passedInPieces));
        }
    }

    /// The same call again is not looked at anew, anything else is.
    void callThatComesAgainPassesAndNothingElseInItsPlace()
    {
        const QByteArray call = frames::serverSlot(true);
        for (int i = 4; i < call.size(); ++i) {
            FrameChecker checker = serviceChecker();
            QCOMPARE(checker.check(call + call), call + call);
            QByteArray other = call;
            other[i] = char(~other.at(i));
            QCOMPARE(checker.check(other).isEmpty(),
                     !violationOf(serviceChecker(), other).isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(FrameCheckerTest)
#include "tst_framechecker.moc"
