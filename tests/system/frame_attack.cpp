#include "framechecker.h"
#include "ipcurls.h"
#include "client.h"
#include "daemonprocess.h"
#include "frames.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using frames::kIpcInterface;
using frames::kServiceInterface;

namespace {

constexpr int kFrames = 50'000; ///< unless TALVEX_FRAMES says more
constexpr qint64 kMostGrowthKiB = 20 * 1024;
constexpr int kUsualTimeMs = 1'000;
constexpr int kEndOfStreamLimitMs = 30'000;

const QString kClosed = QStringLiteral("Connection closed: ");

bool isSanitized()
{
#ifdef __SANITIZE_ADDRESS__
    return true;
#else
    return false;
#endif
}

/// A connection without any of Qt, that may do what Qt would not.
class RawConnection
{
public:
    explicit RawConnection(const QString &name)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray path = name.toLocal8Bit();
        qstrncpy(address.sun_path, path.constData(), sizeof(address.sun_path));
        m_isConnected =
            ::connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    }

    ~RawConnection() { ::close(m_socket); }

    RawConnection(const RawConnection &) = delete;
    RawConnection &operator=(const RawConnection &) = delete;

    bool isConnected() const { return m_isConnected; }

    /// Sends as much as the daemon takes before it closes the connection.
    /// @return how much that is.
    int send(const QByteArray &bytes)
    {
        int sent = 0;
        while (sent < bytes.size()) {
            const auto count = ::send(m_socket, bytes.constData() + sent,
                                      static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
            if (count <= 0)
                break;
            sent += static_cast<int>(count);
        }
        return sent;
    }

    /// The same, but gives up when the daemon takes nothing for @p limitMs.
    bool sendOrGiveUp(const QByteArray &bytes, int limitMs)
    {
        int sent = 0;
        while (sent < bytes.size()) {
            pollfd ready = {m_socket, POLLOUT, 0};
            if (::poll(&ready, 1, limitMs) != 1)
                return false;
            const auto count =
                ::send(m_socket, bytes.constData() + sent,
                       static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count <= 0)
                return false;
            sent += static_cast<int>(count);
        }
        return true;
    }

    void finishSending() { ::shutdown(m_socket, SHUT_WR); }

    /// Reads at least @p size bytes.
    bool receive(int size)
    {
        char buffer[4096];
        while (size > 0) {
            pollfd ready = {m_socket, POLLIN, 0};
            if (::poll(&ready, 1, kEndOfStreamLimitMs) != 1)
                return false;
            const auto count = ::recv(m_socket, buffer, sizeof(buffer), 0);
            if (count <= 0)
                return false;
            size -= static_cast<int>(count);
        }
        return true;
    }

    /// Reads until the daemon has closed the connection.
    /// @return false when it does not within some seconds.
    bool waitForEnd()
    {
        char buffer[4096];
        for (;;) {
            pollfd ready = {m_socket, POLLIN, 0};
            if (::poll(&ready, 1, kEndOfStreamLimitMs) != 1)
                return false;
            if (::recv(m_socket, buffer, sizeof(buffer), 0) <= 0)
                return true;
        }
    }

private:
    int m_socket;
    bool m_isConnected = false;
};

/// Makes streams of frames, always the same ones for a seed.
class StreamMaker
{
public:
    struct Stream
    {
        QByteArray bytes;
        int frames = 0;
        bool isViolation = false;
    };

    StreamMaker(quint32 seed, bool isMain)
        : m_random(seed)
        , m_isMain(isMain)
    {
    }

    /// Some frames as a client might send them, and one that is made up.
    Stream make()
    {
        Stream stream;
        if (number(2) == 0)
            add(stream, frames::addObject(name()));
        for (int good = number(8); good > 0; --good)
            add(stream, goodFrame());
        add(stream, number(2) == 0 ? crafted() : mutated());
        stream.isViolation = isViolation(stream.bytes);
        return stream;
    }

private:
    int number(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(m_random); }

    QString name() const { return m_isMain ? kIpcInterface : kServiceInterface; }

    static void add(Stream &stream, const QByteArray &frame)
    {
        stream.bytes += frame;
        ++stream.frames;
    }

    bool isViolation(const QByteArray &bytes) const
    {
        FrameChecker checker(m_isMain ? RemoteInterface::ipcInterface()
                                      : RemoteInterface::serviceInterface());
        return !checker.feed(bytes);
    }

    QString text()
    {
        QString text;
        for (int length = number(200); length > 0; --length)
            text += QChar(static_cast<ushort>(number(0x10000)));
        return text;
    }

    VpnServerInformation server()
    {
        VpnServerInformation server;
        server.name = text();
        server.host = text();
        server.ca = text();
        server.key = text();
        server.udpPort = number(0x10000);
        return server;
    }

    QByteArray goodFrame()
    {
        // No endpoint is asked for, since each would stay, and nothing is a command: the tests of
        // the commands do both.
        const int kind = number(m_isMain ? 3 : 5);
        if (kind == 0)
            return frames::handshake();
        if (kind <= 2)
            return frames::ping(name());
        if (kind == 3)
            return frames::serverSlot(number(2) == 0);
        return frames::vpnCommand(text(), server());
    }

    QByteArray random(int size)
    {
        QByteArray bytes(size, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(number(256));
        return bytes;
    }

    QByteArray crafted()
    {
        const QByteArray length(4, static_cast<char>(0x7f));
        switch (number(12)) {
        case 0:
            return frames::frame(random(number(64)));
        case 1:
            return random(64);
        case 2:
            return frames::packet(static_cast<quint16>(number(16)), name(), random(number(32)));
        case 3:
            return frames::invoke(name(), 0, 0x7fffffff, {});
        case 4:
            return frames::invoke(name(), number(8) - 4, static_cast<quint32>(number(4)),
                                  random(32));
        case 5:
            return frames::invoke(name(), 0, 1, QByteArray(3, '\0') + '\t' + '\0' + length);
        case 6:
            return frames::invoke(kServiceInterface, 1, 2, frames::argument(text()) + random(64));
        case 7:
            return frames::packet(1, text());
        case 8:
            return frames::packet(6, name(), length + length);
        case 9:
            return frames::addObject(text());
        case 10:
            return frames::packet(3, name(), QByteArray(4096, '\1'));
        default:
            return QByteArray(4, '\xff') + random(16);
        }
    }

    QByteArray mutated()
    {
        QByteArray frame = goodFrame();
        for (int changes = 1 + number(3); changes > 0 && frame.size() > 4; --changes) {
            const int position = number(frame.size());
            switch (number(4)) {
            case 0:
                frame[position] = static_cast<char>(number(256));
                break;
            case 1:
                frame[position] = static_cast<char>(frame.at(position) ^ (1 << number(8)));
                break;
            case 2:
                frame.insert(position, random(1 + number(8)));
                break;
            default:
                frame.remove(position, 1 + number(8));
            }
        }
        return frame;
    }

    std::mt19937 m_random;
    bool m_isMain;
};

/// Throws frames at one socket from a thread of its own.
class Attacker
{
public:
    Attacker(const QString &socket, bool isMain, quint32 seed, int frames)
        : m_thread([this, socket, isMain, seed, frames] { run(socket, isMain, seed, frames); })
    {
    }

    ~Attacker() { join(); }

    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

    bool isDone() const { return m_isDone; }
    int frames() const { return m_frames; }
    int violations() const { return m_violations; }
    int failures() const { return m_failures; }

private:
    void run(const QString &socket, bool isMain, quint32 seed, int frames)
    {
        StreamMaker maker(seed, isMain);
        while (m_frames < frames && m_failures == 0) {
            const StreamMaker::Stream stream = maker.make();
            RawConnection connection(socket);
            connection.send(stream.bytes);
            connection.finishSending();
            if (!connection.isConnected() || !connection.waitForEnd())
                ++m_failures;
            m_frames += stream.frames;
            m_violations += stream.isViolation;
        }
        m_isDone = true;
    }

    std::atomic<bool> m_isDone{false};
    std::atomic<int> m_frames{0};
    std::atomic<int> m_violations{0};
    std::atomic<int> m_failures{0};
    std::thread m_thread; // started last
};

QByteArray unfinishedFrame(int sent)
{
    return QByteArray("\0\x10\0\0", 4) + QByteArray(sent - 4, 'A');
}

} // namespace

/// What the daemon does while anybody on the machine throws bytes at its sockets.
class FrameAttack : public QObject
{
    Q_OBJECT

private:
    /// @return milliseconds until a command was answered, or -1.
    static qint64 timeOfACommand(Client &client)
    {
        const int answers = client.answers().size();
        QElapsedTimer timer;
        timer.start();
        client.heartbeat();
        client.disconnectTunnel();
        return QTest::qWaitFor([&] { return client.answers().size() > answers; }, 10'000)
            ? timer.elapsed()
            : -1;
    }

    static void addSockets()
    {
        QTest::addColumn<bool>("isMain");
        QTest::newRow("main socket") << true;
        QTest::newRow("endpoint") << false;
    }

    int closedConnections() { return m_daemon->linesWith(kClosed).size(); }

    QScopedPointer<DaemonProcess> m_daemon;

private Q_SLOTS:
    void init()
    {
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        QVERIFY(m_daemon->isRunning());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QVERIFY(timeOfACommand(client) >= 0);
        // A daemon that was killed leaves its socket, and the next one would respect it.
        m_daemon.reset();
        QVERIFY(QFile::remove(shared::getIpcServiceUrl()));
    }

    void fiftyThousandFramesDisturbNobody()
    {
        bool isGiven = false;
        quint32 seed = qEnvironmentVariable("TALVEX_SEED").toUInt(&isGiven);
        if (!isGiven)
            seed = std::random_device()();
        qInfo("Seed %u; repeat with TALVEX_SEED=%u", seed, seed);

        const int wanted = std::max(kFrames, qEnvironmentVariableIntValue("TALVEX_FRAMES"));

        Client client;
        QVERIFY(client.attachToNewEndpoint());
        Client owner; // of the endpoint under attack
        QVERIFY(owner.attachToNewEndpoint());
        bool isClientDisconnected = false;
        for (QLocalSocket *socket : {&client.mainSocket(), &client.endpointSocket()}) {
            connect(socket, &QLocalSocket::disconnected, this,
                    [&isClientDisconnected] { isClientDisconnected = true; });
        }
        QVERIFY(timeOfACommand(client) >= 0);
        const qint64 before = m_daemon->residentKiB();
        QVERIFY(before > 0);
        QVERIFY(before > 0);

        Attacker onMain(shared::getIpcServiceUrl(), true, seed, wanted / 2);
        Attacker onEndpoint(shared::getIpcProcessUrl(owner.endpoint()), false, seed + 1,
                            wanted / 2);
        qint64 slowest = 0;
        int commands = 0;
        while (!onMain.isDone() || !onEndpoint.isDone()) {
            const qint64 time = timeOfACommand(client);
            QVERIFY2(time >= 0 && time < kUsualTimeMs, qPrintable(QString::number(time)));
            slowest = std::max(slowest, time);
            ++commands;
            QTest::qWait(20); // a client that asks without end would be the attack
        }
        QCOMPARE(onMain.failures(), 0);
        QCOMPARE(onEndpoint.failures(), 0);
        QVERIFY(onMain.frames() + onEndpoint.frames() >= wanted);
        QVERIFY(!isClientDisconnected);
        QVERIFY(commands > 10);

        // Some thousand violations, each with its line in the log, and no other connection closed.
        const int violations = onMain.violations() + onEndpoint.violations();
        QVERIFY(violations > wanted / 10);
        QTRY_COMPARE(closedConnections(), violations);
        const qint64 growth = m_daemon->residentKiB() - before;
        qInfo("%d frames, %d violations, %d commands, the slowest %lld ms, grown by %lld KiB",
              onMain.frames() + onEndpoint.frames(), violations, commands,
              static_cast<long long>(slowest), static_cast<long long>(growth));
        if (!isSanitized()) // whose freed memory stays for a while
            QVERIFY2(growth < kMostGrowthKiB, qPrintable(QString::number(growth)));
    }

    void violationClosesTheConnectionAndIsLogged_data()
    {
        QTest::addColumn<bool>("isMain");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");
        const auto row = [](const char *name, bool isMain, const QByteArray &bytes,
                            const char *reason) {
            QTest::newRow(name) << isMain << bytes << QString::fromLatin1(reason);
        };
        row("main: too long", true, QByteArray("\0\x10\0\1", 4),
            "\"a frame of 1048577 bytes is too long\"");
        row("endpoint: too long", false, QByteArray("\0\x10\0\1", 4),
            "\"a frame of 1048577 bytes is too long\"");
        row("main: type without use", true, frames::packet(3, kIpcInterface),
            "\"a frame of type 3: clients have no reason to send it\"");
        row("endpoint: type without use", false, frames::packet(3, kServiceInterface),
            "\"a frame of type 3: clients have no reason to send it\"");
        row("main: argument that the slot does not take", true,
            frames::invoke(kIpcInterface, 0, 1, frames::argument(true)),
            "\"a frame of type 6: the slot takes another number of arguments\"");
        row("endpoint: two thousand million arguments", false,
            frames::invoke(kServiceInterface, 0, 0x7fffffff, {}),
            "\"a frame of type 6: the slot takes another number of arguments\"");
        row("endpoint: other argument", false,
            frames::invoke(kServiceInterface, 0, 1, frames::argument(QStringLiteral("true"))),
            "\"a frame of type 6: the slot takes other arguments\"");
        row("main: text longer than the frame", true,
            frames::frame(QByteArray("\0\x0a\x7f\xff\xff\xfe", 6)),
            "\"a frame of type 10: its content is longer than the frame\"");
    }

    void violationClosesTheConnectionAndIsLogged()
    {
        QFETCH(bool, isMain);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        Client owner;
        QVERIFY(owner.attachToNewEndpoint());
        const QString socket =
            isMain ? shared::getIpcServiceUrl() : shared::getIpcProcessUrl(owner.endpoint());
        const int before = closedConnections();
        RawConnection connection(socket);
        QVERIFY(connection.isConnected());
        connection.send(bytes);
        QVERIFY(connection.waitForEnd());
        QTRY_COMPARE(closedConnections(), before + 1);
        QCOMPARE(m_daemon->linesWith(kClosed).last(), kClosed + reason);
    }

    void connectionsThatEndLeaveNothingInMemory()
    {
        Client owner;
        QVERIFY(owner.attachToNewEndpoint());
        const auto comeAndGo = [&owner](int connections) {
            for (int i = 0; i < connections; ++i) {
                RawConnection connection(i % 2 == 0 ? shared::getIpcServiceUrl()
                                                    : shared::getIpcProcessUrl(owner.endpoint()));
                connection.send(i % 2 == 0 ? frames::addObject(kIpcInterface)
                                           : frames::addObject(kServiceInterface));
                connection.finishSending();
                if (!connection.waitForEnd())
                    return false;
                QCoreApplication::processEvents(); // the daemon's log must not fill its pipe
            }
            return true;
        };
        QVERIFY(comeAndGo(2'000));
        const qint64 before = m_daemon->residentKiB();
        QVERIFY(before > 0);
        QVERIFY(comeAndGo(10'000));
        const qint64 growth = m_daemon->residentKiB() - before;
        qInfo("Grown by %lld KiB", static_cast<long long>(growth));
        if (!isSanitized())
            QVERIFY2(growth < 2 * 1024, qPrintable(QString::number(growth)));
    }

    void goodFramesKeepTheConnectionOpen()
    {
        Client owner;
        QVERIFY(owner.attachToNewEndpoint());
        RawConnection connection(shared::getIpcProcessUrl(owner.endpoint()));
        connection.send(frames::addObject(kServiceInterface) + frames::serverSlot(true));
        QTRY_COMPARE(m_daemon->count(QStringLiteral("Replica state is  true")), 1);
        connection.send(frames::serverSlot(false));
        QTRY_COMPARE(m_daemon->count(QStringLiteral("Replica state is  false")), 1);
        QCOMPARE(closedConnections(), 0);
    }

    void thousandsOfUnfinishedFramesAreNotHeld_data() { addSockets(); }

    void thousandsOfUnfinishedFramesAreNotHeld()
    {
        QFETCH(bool, isMain);
        constexpr int kConnections = 3'000;
        constexpr int kBatch = 500; // open at a time
        constexpr int kSent = 256 * 1024; // of 1 MiB
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const QString socket =
            isMain ? shared::getIpcServiceUrl() : shared::getIpcProcessUrl(client.endpoint());
        const qint64 before = m_daemon->residentKiB();
        QVERIFY(before > 0);

        std::atomic<bool> isDone{false};
        std::atomic<int> failures{0};
        std::atomic<qint64> most{0};
        std::thread attacker([&] {
            const QByteArray bytes = unfinishedFrame(kSent);
            for (int batch = 0; batch < kConnections / kBatch; ++batch) {
                std::vector<std::unique_ptr<RawConnection>> connections;
                for (int i = 0; i < kBatch; ++i) {
                    connections.push_back(std::make_unique<RawConnection>(socket));
                    failures += !connections.back()->isConnected();
                    connections.back()->send(bytes);
                }
                most = std::max<qint64>(most, m_daemon->residentKiB());
            }
            isDone = true;
        });
        qint64 slowest = 0;
        int unanswered = 0;
        while (!isDone) {
            const qint64 time = timeOfACommand(client);
            unanswered += time < 0;
            slowest = std::max(slowest, time);
            QTest::qWait(20);
        }
        attacker.join();
        QCOMPARE(failures.load(), 0);
        QCOMPARE(unanswered, 0);
        QVERIFY2(slowest < kUsualTimeMs, qPrintable(QString::number(slowest)));
        // Each batch alone would be 125 MiB.
        QTRY_VERIFY(m_daemon->count(
                        QStringLiteral("Connection closed: \"too much is held for its client\""))
                    > kConnections / 2);
        qInfo("Grown by %lld KiB at most, the slowest command took %lld ms",
              static_cast<long long>(most - before), static_cast<long long>(slowest));
        if (!isSanitized())
            QVERIFY2(most - before < 48 * 1024, qPrintable(QString::number(most - before)));
    }

    void clientThatNeverReadsIsDisconnected_data() { addSockets(); }

    void clientThatNeverReadsIsDisconnected()
    {
        QFETCH(bool, isMain);
        Client owner;
        QVERIFY(owner.attachToNewEndpoint());
        const qint64 before = m_daemon->residentKiB();
        QVERIFY(before > 0);
        RawConnection connection(isMain ? shared::getIpcServiceUrl()
                                        : shared::getIpcProcessUrl(owner.endpoint()));
        QVERIFY(connection.isConnected());
        // Each ping is answered by a pong of the same size.
        QByteArray pings;
        while (pings.size() < 64 * 1024)
            pings += frames::ping(isMain ? kIpcInterface : kServiceInterface);
        int sent = 0;
        while (sent < 64 && connection.sendOrGiveUp(pings, 5'000))
            ++sent;
        QVERIFY(sent < 64); // else it would have taken 4 MiB of pings
        QTRY_COMPARE(m_daemon->count(QStringLiteral(
                         "Connection closed: \"the client does not read its answers\"")),
                     1);
        if (!isSanitized()) {
            const qint64 growth = m_daemon->residentKiB() - before;
            QVERIFY2(growth < 8 * 1024, qPrintable(QString::number(growth)));
        }
        const qint64 time = timeOfACommand(owner);
        QVERIFY2(time >= 0 && time < kUsualTimeMs, qPrintable(QString::number(time)));
    }

    void clientThatReadsMayPingAsMuchAsItLikes()
    {
        Client owner;
        QVERIFY(owner.attachToNewEndpoint());
        RawConnection connection(shared::getIpcProcessUrl(owner.endpoint()));
        QByteArray pings;
        while (pings.size() < 64 * 1024)
            pings += frames::ping(kServiceInterface);
        for (int round = 0; round < 64; ++round) {
            QCOMPARE(connection.send(pings), pings.size());
            QVERIFY(connection.receive(pings.size()));
        }
        QCOMPARE(closedConnections(), 0);
    }
};

QTEST_GUILESS_MAIN(FrameAttack)
#include "frame_attack.moc"
