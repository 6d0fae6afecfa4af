#include "framechecker.h"

#include "frames.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtTest/QtTest>

using frames::kServiceInterface;

namespace {

FrameChecker serviceChecker()
{
    return FrameChecker(ServiceInterfaceSource::staticMetaObject);
}

/// @return what a new checker says about @p bytes, given all at once.
QString violationOf(const QByteArray &bytes)
{
    FrameChecker checker = serviceChecker();
    const QByteArray passed = checker.check(bytes);
    return passed == (checker.violation().isEmpty() ? bytes : QByteArray()) ? checker.violation()
                                                                            : "other bytes passed";
}

VpnServerInformation server()
{
    const QString pem = "-----BEGIN\nY2E=\n-----END\n";
    return {"Example", 7, {}, {}, pem, pem, pem, 0, 0};
}

/// @return the frame with the four bytes at @p position replaced.
QByteArray withNumber(QByteArray frame, int position, quint32 value)
{
    return frame.replace(position, 4, frames::streamed(value));
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
        QCOMPARE(violationOf(frames::vpnCommand("{}")),
                 QString("a frame of type 6: the slot takes other arguments"));
        qRegisterMetaTypeStreamOperators<VpnServerInformation>("VpnServerInformation");
    }

    void whatClientsHaveReasonForPasses()
    {
        const QByteArray add = frames::addObject(kServiceInterface);
        const QByteArray replicaThatComesBack = add + frames::removeObject(kServiceInterface) + add;
        for (const QByteArray &bytes :
             {replicaThatComesBack, frames::ping(kServiceInterface), frames::serverSlot(false),
              frames::vpnCommand("{}", server()), frames::vpnCommand(QString())})
            QCOMPARE(violationOf(bytes), QString());
    }

    void nothingElsePasses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("problem");
        const auto row = [](const char *name, const QByteArray &bytes, int type,
                            const char *problem) {
            QTest::newRow(name) << bytes << type << problem;
        };
        const QByteArray add = frames::addObject(kServiceInterface);
        const QByteArray ping = frames::ping(kServiceInterface);
        const QByteArray state = frames::argument(true);
        const QByteArray text = frames::argument(QString("{}"));
        const QByteArray record = frames::argument(server());
        const auto call = [](int slot, quint32 count, const QByteArray &arguments) {
            return frames::invoke(kServiceInterface, slot, count, arguments);
        };

        // 1 is a host's handshake, 11 its pong.
        for (int type : {0, 1, 2, 3, 7, 8, 9, 11, 12, 13, 0xffff})
            row(qPrintable(QString("type %1").arg(type)),
                frames::packet(quint16(type), kServiceInterface), type,
                "clients have no reason to send it");
        for (int type : {4, 5, 6, 10})
            row(qPrintable(QString("type %1 for another object").arg(type)),
                frames::packet(quint16(type), frames::kIpcInterface), type,
                "it is not for ServiceInterface");
        row("object with a longer name", frames::ping("ServiceInterface2"), 10,
            "it is not for ServiceInterface");
        row("second replica", add + add, 4, "the client has a replica already");

        const char *const kCutShort = "its content is longer than the frame";
        row("empty frame", frames::frame({}), 0, kCutShort);
        row("half a type", frames::frame("\1"), 0, kCutShort);
        row("name longer than the frame", withNumber(ping, 6, 0x7ffffffe), 10, kCutShort);
        row("type with a name longer than the frame",
            call(1, 2, text + withNumber(record, 5, 0x7fffffff)), 6, kCutShort);
        row("text longer than the frame", call(1, 2, text + withNumber(record, 9 + 21, 0x7ffffffe)),
            6, kCutShort);
        row("record cut short", call(1, 2, text + record.left(record.size() - 9)), 6, kCutShort);
        const char *const kTooLong = "the frame is longer than its content";
        row("bytes behind a ping", frames::packet(10, kServiceInterface, "A"), 10, kTooLong);
        row("bytes behind a record", call(1, 2, text + record + "A"), 6, kTooLong);

        row("property instead of a slot",
            frames::packet(6, kServiceInterface, frames::streamed(1, 0, 0, 0)), 6,
            "it calls no slot");
        row("slot beyond the last", call(2, 0, {}), 6, "there is no such slot");
        row("negative slot", call(-1, 0, {}), 6, "there is no such slot");
        const char *const kNumber = "the slot takes another number of arguments";
        row("no argument", call(0, 0, {}), 6, kNumber);
        row("one argument too many", call(0, 2, state + state), 6, kNumber);
        row("two thousand million arguments", call(1, 0x7fffffff, {}), 6, kNumber);
        const char *const kOthers = "the slot takes other arguments";
        row("text instead of a state", call(0, 1, text), 6, kOthers);
        row("arguments in the wrong order", call(1, 2, record + text), 6, kOthers);
        row("record of another type",
            call(1, 2, text + QByteArray(record).replace("VpnServer", "VpnClient")), 6, kOthers);
        row("record of a type whose name begins alike",
            call(1, 2, text + withNumber(record, 5, 20)), 6, kOthers);
        row("record with the number of another type",
            call(1, 2, text + withNumber(record, 0, 1025)), 6, kOthers);
    }

    void nothingElsePasses()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, type);
        QFETCH(QString, problem);
        QCOMPARE(violationOf(bytes), QString("a frame of type %1: %2").arg(type).arg(problem));
    }

    void frameOf256KiBIsHeldUntilItIsWhole()
    {
        FrameChecker checker = serviceChecker();
        checker.check(frames::streamed(262'144) + QByteArray(262'143, '\0'));
        QCOMPARE(checker.violation(), QString());
        QCOMPARE(checker.heldBytes(), 262'147);
        checker.check(QByteArray(1, '\0')); // whole, and of type 0
        QVERIFY(!checker.violation().isEmpty());
        QCOMPARE(checker.heldBytes(), 0);
    }

    void longerFrameIsRefusedAtItsLength()
    {
        FrameChecker checker = serviceChecker();
        checker.check(frames::streamed(262'145).left(3));
        QCOMPARE(checker.violation(), QString());
        checker.check(frames::streamed(262'145).right(1));
        QCOMPARE(checker.violation(), QString("a frame of 262145 bytes is too long"));
        QCOMPARE(violationOf(frames::streamed(0xffffffff)),
                 QString("a frame of 4294967295 bytes is too long"));
    }

    void cuttingTheStreamChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("stream");
        const QByteArray all = frames::addObject(kServiceInterface) + frames::serverSlot(true)
            + frames::vpnCommand("{}", server()) + frames::ping(kServiceInterface)
            + frames::removeObject(kServiceInterface);
        QTest::newRow("good frames, the last unfinished") << all + all.left(20);
        QTest::newRow("violation in the middle")
            << all + frames::packet(3, kServiceInterface) + all;
        QTest::newRow("too long a frame") << all + frames::streamed(0xfffffff0) + all;
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
            QCOMPARE(checker.check(other).isEmpty(), !violationOf(other).isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(FrameCheckerTest)
#include "tst_framechecker.moc"
