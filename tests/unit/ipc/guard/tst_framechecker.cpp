#include "framechecker.h"

#include "daemonprocess.h"
#include "framerecording.h"
#include "frames.h"

#include <QtCore/QDir>
#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

#include <algorithm>

using frames::kIpcInterface;
using frames::kServiceInterface;

namespace {

constexpr int kLengthBytes = 4;

FrameChecker serviceChecker()
{
    return FrameChecker(RemoteInterface::serviceInterface());
}

FrameChecker mainChecker()
{
    return FrameChecker(RemoteInterface::ipcInterface());
}

/// @return what the checker says about @p bytes, given all at once.
QString violationOf(FrameChecker checker, const QByteArray &bytes)
{
    checker.feed(bytes);
    return checker.violation();
}

VpnServerInformation server()
{
    return framerecording::recordedServer();
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

/// @return a command whose frame has @p size bytes, without its length.
QByteArray commandOfSize(quint32 size)
{
    const int rest = frames::vpnCommand(QString()).size() - kLengthBytes;
    // An empty text has no bytes, and the odd one goes into no text.
    return frames::vpnCommand(
        QString(static_cast<int>((size - static_cast<quint32>(rest)) / 2), QLatin1Char('A')));
}

quint32 sizeOf(const QByteArray &frame)
{
    return qFromBigEndian<quint32>(frame.constData());
}

/// The n-th block of hexadecimal bytes in the description of the protocol.
QByteArray documentedBytes(int n)
{
    QFile document(QStringLiteral(TALVEX_SOURCES "/docs/protocol-frames.md"));
    if (!document.open(QIODevice::ReadOnly))
        return {};
    const QStringList blocks = QString::fromUtf8(document.readAll()).split(QStringLiteral("```"));
    const QRegularExpression bytes(QStringLiteral("^((?:[0-9a-f]{2}(?: |$))+)"),
                                   QRegularExpression::MultilineOption);
    QByteArrayList found;
    for (int i = 1; i < blocks.size(); i += 2) {
        QByteArray block;
        for (auto match = bytes.globalMatch(blocks.at(i)); match.hasNext();)
            block += QByteArray::fromHex(match.next().captured(1).toLatin1());
        if (!block.isEmpty())
            found.append(block);
    }
    return found.value(n);
}

QVector<framerecording::Frame> storedFrames(const QString &prefix)
{
    QVector<framerecording::Frame> stored;
    const QDir folder(QStringLiteral(TALVEX_SOURCES "/fuzz/corpus/frames"));
    for (const QString &name : folder.entryList({prefix + QStringLiteral("-*")})) {
        QFile file(folder.filePath(name));
        if (file.open(QIODevice::ReadOnly))
            stored.append({name.mid(prefix.size() + 1).toLatin1(), file.readAll().mid(1)});
    }
    return stored;
}

} // namespace

/// What of a client's bytes reaches Remote Objects.
class FrameCheckerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recordedFramesOfAClientPass_data()
    {
        QTest::addColumn<bool>("isMain");
        QTest::addColumn<QByteArray>("bytes");
        for (const auto &frame : storedFrames(QStringLiteral("main")))
            QTest::newRow("main: " + frame.name) << true << frame.bytes;
        for (const auto &frame : storedFrames(QStringLiteral("endpoint")))
            QTest::newRow("endpoint: " + frame.name) << false << frame.bytes;
    }

    void recordedFramesOfAClientPass()
    {
        QFETCH(bool, isMain);
        QFETCH(QByteArray, bytes);
        FrameChecker checker = isMain ? mainChecker() : serviceChecker();
        QVERIFY2(checker.feed(bytes), qPrintable(checker.violation()));
        QCOMPARE(checker.takeChecked(), bytes);
        QCOMPARE(checker.heldBytes(), 0);
    }

    void recordedFramesAreWhatAClientSends()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const framerecording::Recording recording = framerecording::record();
        QCOMPARE(recording.mainSocket.size(), 3);
        QCOMPARE(recording.endpoint.size(), 6);
        const auto compare = [](const QVector<framerecording::Frame> &sent, const QString &prefix) {
            QMap<QByteArray, QByteArray> stored;
            for (const auto &frame : storedFrames(prefix))
                stored.insert(frame.name, frame.bytes);
            for (const auto &frame : sent)
                QCOMPARE(stored.value(frame.name).toHex(' '), frame.bytes.toHex(' '));
            QCOMPARE(stored.size(), sent.size() + 1); // and all of them together
        };
        compare(recording.mainSocket, QStringLiteral("main"));
        compare(recording.endpoint, QStringLiteral("endpoint"));
    }

    void framesMadeByHandAreTheRecordedOnes()
    {
        QMap<QByteArray, QByteArray> stored;
        for (const auto &frame : storedFrames(QStringLiteral("endpoint")))
            stored.insert(frame.name, frame.bytes);
        QCOMPARE(frames::addObject(kServiceInterface), stored.value("add-object"));
        QCOMPARE(frames::removeObject(kServiceInterface), stored.value("remove-object"));
        QCOMPARE(frames::ping(kServiceInterface), stored.value("ping"));
        QCOMPARE(frames::serverSlot(true), stored.value("heartbeat"));
        QCOMPARE(frames::vpnCommand(QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}"),
                                    server()),
                 stored.value("connect"));
    }

    void documentedFrameIsARecordedOne_data()
    {
        QTest::addColumn<int>("block");
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("heartbeat") << 0 << QByteArray("heartbeat");
        QTest::newRow("disconnect") << 1 << QByteArray("disconnect");
    }

    void documentedFrameIsARecordedOne()
    {
        QFETCH(int, block);
        QFETCH(QByteArray, name);
        QByteArray recorded;
        for (const auto &frame : storedFrames(QStringLiteral("endpoint"))) {
            if (frame.name == name)
                recorded = frame.bytes;
        }
        QVERIFY(recorded.size() > kLengthBytes);
        QCOMPARE(documentedBytes(block).toHex(' '), recorded.toHex(' '));
    }

    void everyFrameThatClientsHaveReasonForPasses_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::newRow("handshake") << frames::handshake();
        QTest::newRow("add object") << frames::addObject(kServiceInterface);
        QTest::newRow("remove object") << frames::removeObject(kServiceInterface);
        QTest::newRow("ping") << frames::ping(kServiceInterface);
        QTest::newRow("pong") << frames::packet(11, kServiceInterface);
        QTest::newRow("heartbeat") << frames::serverSlot(false);
        QTest::newRow("command") << frames::vpnCommand(QStringLiteral("{}"), server());
        QTest::newRow("command with null texts") << frames::vpnCommand(QString());
        QTest::newRow("command that is no JSON") << frames::vpnCommand(QString(1000, QChar(0)));
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

        for (int type : {0, 2, 3, 7, 8, 9, 12, 13, 0xffff}) {
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

        for (int type : {4, 5, 6, 10, 11}) {
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
        row("handshake longer than the frame", withNumber(frames::handshake(), 6, 0xfffffffe),
            "a frame of type 1: its content is longer than the frame");
        row("bytes behind a ping", frames::packet(10, kServiceInterface, "A"),
            "a frame of type 10: the frame is longer than its content");
        row("bytes behind a handshake", frames::packet(1, QStringLiteral("QtRO 1.3"), "A"),
            "a frame of type 1: the frame is longer than its content");
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
            "a frame of type 6: its content is longer than the frame");
        row("text instead of a record", call(1, 2, text + text),
            "a frame of type 6: the slot takes other arguments");
        row("arguments in the wrong order", call(1, 2, record + text),
            "a frame of type 6: its content is longer than the frame");
        row("record of another type",
            call(1, 2, text + QByteArray(record).replace("VpnServer", "VpnClient")),
            "a frame of type 6: the slot takes other arguments");
        row("record of a type with a long name",
            call(1, 2, text + withNumber(record, 5, 0x7fffffff)),
            "a frame of type 6: the slot takes other arguments");
        row("text of the record longer than the frame",
            call(1, 2, text + withNumber(record, 9 + 21, 0x7ffffffe)),
            "a frame of type 6: its content is longer than the frame");
        row("record cut short", call(1, 2, text + record.left(record.size() - 9)),
            "a frame of type 6: its content is longer than the frame");
        row("record with more behind it", call(1, 2, text + record + "A"),
            "a frame of type 6: the frame is longer than its content");
    }

    void anythingElseIsAViolation()
    {
        QFETCH(QByteArray, frame);
        QFETCH(QString, violation);
        FrameChecker checker = serviceChecker();
        QVERIFY(!checker.feed(frame));
        QCOMPARE(checker.violation(), violation);
    }

    void slotsOfOneInterfaceAreNotThoseOfTheOther()
    {
        QCOMPARE(violationOf(mainChecker(), frames::createPrivilegedProcess()), QString());
        QCOMPARE(violationOf(mainChecker(), frames::serverSlot(true)),
                 QStringLiteral("a frame of type 6: it is not for IpcInterface"));
        QCOMPARE(violationOf(mainChecker(), frames::invoke(kIpcInterface, 1, 0, {})),
                 QStringLiteral("a frame of type 6: there is no such slot"));
    }

    void replicaMayComeBackAfterItWasRemoved()
    {
        QCOMPARE(violationOf(serviceChecker(),
                             frames::addObject(kServiceInterface)
                                 + frames::removeObject(kServiceInterface)
                                 + frames::addObject(kServiceInterface)),
                 QString());
    }

    void longestFramePasses()
    {
        const QByteArray frame = commandOfSize(FrameChecker::kLongestFrame);
        QVERIFY(FrameChecker::kLongestFrame - sizeOf(frame)
                < 2); // texts have two bytes a character
        QCOMPARE(violationOf(serviceChecker(), frame), QString());
    }

    void frameOfExactlyOneMiBIsHeldUntilItIsWhole()
    {
        FrameChecker checker = serviceChecker();
        QVERIFY(checker.feed(number(1024 * 1024)));
        QCOMPARE(checker.heldBytes(), kLengthBytes);
        QVERIFY(checker.feed(QByteArray(1024 * 1024 - 1, '\0')));
        QCOMPARE(checker.heldBytes(), kLengthBytes + 1024 * 1024 - 1);
        QVERIFY(!checker.feed(QByteArray(1, '\0'))); // whole, and of type 0
        QCOMPARE(checker.heldBytes(), 0);
    }

    void frameOfOneByteMoreIsRefusedAtItsLength()
    {
        FrameChecker checker = serviceChecker();
        QVERIFY(checker.feed(number(1024 * 1024 + 1).left(3)));
        QVERIFY(!checker.feed(number(1024 * 1024 + 1).right(1)));
        QCOMPARE(checker.violation(), QStringLiteral("a frame of 1048577 bytes is too long"));
    }

    void longestLengthIsRefused()
    {
        QCOMPARE(violationOf(serviceChecker(), number(0xffffffff)),
                 QStringLiteral("a frame of 4294967295 bytes is too long"));
    }

    void nothingPassesAfterAViolation()
    {
        FrameChecker checker = serviceChecker();
        QVERIFY(!checker.feed(frames::serverSlot(true) + frames::createPrivilegedProcess()));
        QCOMPARE(checker.takeChecked(), QByteArray());
        QVERIFY(!checker.feed(frames::serverSlot(true)));
        QCOMPARE(checker.takeChecked(), QByteArray());
        QCOMPARE(checker.violation(),
                 QStringLiteral("a frame of type 6: it is not for ServiceInterface"));
    }

    void whatPassedIsTakenOnce()
    {
        FrameChecker checker = serviceChecker();
        const QByteArray frame = frames::serverSlot(true);
        QVERIFY(checker.feed(frame + frame.left(5)));
        QCOMPARE(checker.takeChecked(), frame);
        QCOMPARE(checker.takeChecked(), QByteArray());
        QCOMPARE(checker.heldBytes(), 5);
        QVERIFY(checker.feed(frame.mid(5)));
        QCOMPARE(checker.takeChecked(), frame);
    }

    void cuttingTheStreamChangesNothing_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QByteArray all;
        for (const auto &frame : storedFrames(QStringLiteral("endpoint"))) {
            if (frame.name == "all")
                all = frame.bytes;
        }
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
        whole.feed(stream);
        const QByteArray passed = whole.takeChecked();
        for (int piece : {1, 2, 3, 4, 5, 7, 64, 255}) {
            FrameChecker checker = serviceChecker();
            QByteArray passedInPieces;
            for (int position = 0; position < stream.size(); position += piece) {
                checker.feed(stream.mid(position, piece));
                passedInPieces += checker.takeChecked();
            }
            QCOMPARE(checker.violation(), whole.violation());
            QCOMPARE(checker.heldBytes(), whole.heldBytes());
            // What came before a violation may have passed before it was seen.
            if (whole.violation().isEmpty())
                QCOMPARE(passedInPieces, passed);
            else
                QVERIFY(stream.startsWith(passedInPieces));
        }
    }

    void everyFrameCutShortOrWithOneByteMoreIsHeldOrRefused()
    {
        const QByteArray frame = frames::vpnCommand(
            QStringLiteral("{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}"), server());
        const auto content = static_cast<quint32>(frame.size() - kLengthBytes);
        for (quint32 size = 0; size < content; ++size) {
            const QByteArray body = frame.mid(kLengthBytes, static_cast<int>(size));
            QVERIFY2(!violationOf(serviceChecker(), number(size) + body).isEmpty(),
                     qPrintable(QString::number(size)));
        }
        QCOMPARE(violationOf(serviceChecker(), frame), QString());
        QVERIFY(!violationOf(serviceChecker(), number(content + 1) + frame.mid(kLengthBytes) + 'A')
                     .isEmpty());
    }
};

QTEST_GUILESS_MAIN(FrameCheckerTest)
#include "tst_framechecker.moc"
