#include "client.h"
#include "daemonprocess.h"
#include "framechecker.h"
#include "frames.h"
#include "ipcurls.h"
#include "measures.h"
#include "privateroot.h"
#include "rawconnection.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtTest/QtTest>

#include <future>
#include <random>

namespace {

constexpr int kFrames = 50'000;

/// @return some frames as a client of the interface might send them, and one that is made up; none
///         asks for an endpoint, which would stay, or commands anything.
QByteArrayList makeStream(std::mt19937 &random, const QString &name)
{
    const auto number = [&random](int limit) { return int(random() % quint32(limit)); };
    const auto bytes = [&number](int size) {
        QByteArray made(size, '\0');
        for (char &byte : made)
            byte = static_cast<char>(number(256));
        return made;
    };
    VpnServerInformation server;
    server.host = QString::fromUtf8(bytes(number(200)));
    QByteArrayList good{frames::ping(name), frames::addObject(name)};
    if (name == frames::kServiceInterface)
        good << frames::serverSlot(true) << frames::vpnCommand(server.host, server);

    QByteArrayList stream;
    for (int i = number(8); i > 0; --i)
        stream.append(good.at(number(good.size())));
    const quint32 count = number(2) == 0 ? 0x7fffffff : static_cast<quint32>(number(4));
    QByteArray mutated = good.at(number(good.size()));
    mutated.replace(number(mutated.size()), number(8), bytes(number(8)));
    const QByteArrayList bad{
        bytes(64), frames::frame(bytes(number(64))),
        frames::packet(static_cast<quint16>(number(16)), name, bytes(number(32))),
        frames::invoke(name, number(8) - 4, count, bytes(32)), mutated};
    return stream << bad.at(number(bad.size()));
}

/// Throws frames at one socket.
/// @return how many violations were among them; -1 when a connection was not ended.
int attack(const QString &socket, const QMetaObject &interface, const QString &name, quint32 seed)
{
    std::mt19937 random(seed);
    int violations = 0;
    for (int sent = 0; sent < kFrames / 2;) {
        const QByteArrayList stream = makeStream(random, name);
        RawConnection connection(socket);
        connection.send(stream.join()); // which may be closed meanwhile
        connection.finishSending();
        if (!connection.isConnected() || !connection.isClosedByPeer(30'000))
            return -1;
        sent += stream.size();
        FrameChecker checker(interface);
        checker.check(stream.join());
        violations += !checker.violation().isEmpty();
    }
    return violations;
}

} // namespace

/// What the shipped daemon does while anybody on the machine throws bytes at its sockets.
class HostileFramesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fiftyThousandFramesDisturbNobody()
    {
        qRegisterMetaTypeStreamOperators<VpnServerInformation>("VpnServerInformation");
        bool isGiven = false;
        quint32 seed = qEnvironmentVariable("TALVEX_SEED").toUInt(&isGiven);
        if (!isGiven)
            seed = std::random_device()();
        qInfo("Seed %u; repeat with TALVEX_SEED=%u", seed, seed);

        lab::resetPrivateRoot();
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        const QString endpoint = shared::getIpcProcessUrl(client.endpoint());
        const qint64 before = daemon.residentKiB();
        auto onMain = std::async(std::launch::async, [seed] {
            return attack(shared::getIpcServiceUrl(), IpcInterfaceSource::staticMetaObject,
                          frames::kIpcInterface, seed);
        });
        auto onEndpoint = std::async(std::launch::async, [seed, endpoint] {
            return attack(endpoint, ServiceInterfaceSource::staticMetaObject,
                          frames::kServiceInterface, seed + 1);
        });
        // Nobody makes a client wait. One that asks without end would be the attack.
        for (const auto *attack : {&onMain, &onEndpoint}) {
            while (attack->wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
                const int answers = client.answers().size();
                QElapsedTimer timer;
                timer.start();
                client.heartbeat();
                client.disconnectTunnel();
                QTRY_COMPARE(client.answers().size(), answers + 1);
                QVERIFY2(timer.elapsed() < 1'000, qPrintable(QString::number(timer.elapsed())));
                QTest::qWait(20);
            }
        }
        // Some thousand violations, each with its line in the log, and no other connection closed.
        const int ofMain = onMain.get();
        const int violations = ofMain + onEndpoint.get();
        QVERIFY2(ofMain > kFrames / 40 && violations > kFrames / 10,
                 qPrintable(QString::number(violations)));
        QTRY_COMPARE(daemon.linesWith("Connection closed: ").size(), violations);
        QVERIFY(measures::growsByLess(before, daemon.residentKiB(), 20 * 1024));
        QVERIFY(daemon.isRunning());
    }
};

QTEST_GUILESS_MAIN(HostileFramesTest)
#include "tst_hostile_frames.moc"
