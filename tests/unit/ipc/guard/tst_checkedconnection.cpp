#include "checkedconnection.h"

#include "frames.h"
#include "logcapture.h"
#include "rawconnection.h"
#include "rep_serviceinterface_replica.h"
#include "rep_serviceinterface_source.h"

#include <QtTest/QtTest>

#include <memory>
#include <vector>

using frames::kServiceInterface;

namespace {

constexpr int kMiB = 1'048'576;

const QByteArray kHeartbeat = frames::serverSlot(true);
const QByteArray kAttach = frames::addObject(kServiceInterface);

/// An interface on a socket with a host behind it, as the daemon has them.
class Endpoint : public ServiceInterfaceSource
{
public:
    explicit Endpoint(const QString &name)
    {
        if (!m_server.listen(name))
            qFatal("cannot listen");
        connect(&m_server, &QLocalServer::newConnection, this, [this] {
            CheckedConnection::accept(m_server, host, ServiceInterfaceSource::staticMetaObject);
            if (!std::exchange(m_isPublished, true))
                host.enableRemoting(this);
        });
    }

    void server_slot(bool) override { ++heartbeats; }
    void vpn_command(const QString &message, const VpnServerInformation &server) override
    {
        calls.append(message + ' ' + server.host);
    }

    QRemoteObjectHost host;
    int heartbeats = 0;
    QStringList calls;

private:
    QLocalServer m_server;
    bool m_isPublished = false;
};

/// A client's socket that keeps what is written to it.
class RecordingSocket : public QLocalSocket
{
public:
    explicit RecordingSocket(const QString &name) { connectToServer(name); }
    QByteArray written;

protected:
    qint64 writeData(const char *data, qint64 size) override
    {
        written += QByteArray(data, static_cast<int>(size));
        return QLocalSocket::writeData(data, size);
    }
};

} // namespace

/// What stands between a client's socket and a host.
class CheckedConnectionTest : public QObject
{
    Q_OBJECT

private:
    /// @return a connection without any host; its other end is the last of m_clients.
    CheckedConnection *connection()
    {
        m_clients.push_back(std::make_unique<QLocalSocket>());
        m_clients.back()->connectToServer(m_bareServer->fullServerName());
        if (!m_bareServer->waitForNewConnection(10'000))
            qFatal("no connection");
        auto *checked = new CheckedConnection(m_bareServer->nextPendingConnection(),
                                              ServiceInterfaceSource::staticMetaObject, 0);
        checked->setParent(m_bareServer.data());
        return checked;
    }

    QStringList warnings() const { return m_log->lines(QtWarningMsg); }

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<QLocalServer> m_bareServer;
    QString m_name; ///< of an endpoint's socket
    std::vector<std::unique_ptr<QLocalSocket>> m_clients;
    QScopedPointer<LogCapture> m_log;

private Q_SLOTS:
    void initTestCase()
    {
        qRegisterMetaTypeStreamOperators<VpnServerInformation>("VpnServerInformation");
    }

    void init()
    {
        m_folder.reset(new QTemporaryDir);
        m_name = m_folder->filePath("endpoint");
        m_bareServer.reset(new QLocalServer);
        QVERIFY(m_bareServer->listen(m_folder->filePath("bare")));
        m_log.reset(new LogCapture);
    }

    void cleanup()
    {
        m_log.reset();
        m_bareServer.reset();
        m_clients.clear();
    }

    /// What the frames made by hand are worth in all the other tests.
    void clientsSendTheFramesMadeByHand()
    {
        Endpoint endpoint(m_name);
        RecordingSocket socket(m_name);
        const VpnServerInformation server{
            "Office", 7, "an", "vpn.example.net", "-----BEGIN\n", "key", "c", 1194, 443};
        const QByteArray ping = frames::ping(kServiceInterface);
        {
            QRemoteObjectNode node;
            node.addClientSideConnection(&socket);
            const std::unique_ptr<ServiceInterfaceReplica> replica(
                node.acquire<ServiceInterfaceReplica>());
            QVERIFY(replica->waitForSource(10'000));
            replica->server_slot(true);
            replica->vpn_command("disconnect", {});
            replica->vpn_command("connect", server);
            QTRY_COMPARE(endpoint.calls.size(), 2);
            // A client that watches over its connection pings it when nothing else comes.
            node.setHeartbeatInterval(10);
            QTRY_VERIFY(socket.written.endsWith(ping));
            node.setHeartbeatInterval(0);
        }
        while (socket.written.contains(ping + ping))
            socket.written.replace(ping + ping, ping);
        QCOMPARE(socket.written.toHex(' '),
                 (kAttach + kHeartbeat + frames::vpnCommand("disconnect")
                  + frames::vpnCommand("connect", server) + ping
                  + frames::removeObject(kServiceInterface))
                     .toHex(' '));
        QCOMPARE(endpoint.heartbeats, 1);
        QCOMPARE(endpoint.calls, (QStringList{"disconnect ", "connect vpn.example.net"}));
        QCOMPARE(warnings(), QStringList());
    }

    void onlyWholeFramesCanBeRead()
    {
        auto *checked = connection();
        QCOMPARE(checked->findChild<QLocalSocket *>()->readBufferSize(), qint64(32'768));
        QSignalSpy readable(checked, &QIODevice::readyRead);
        m_clients.back()->write(kHeartbeat + kHeartbeat.left(10));
        QTRY_COMPARE(checked->bytesAvailable(), qint64(kHeartbeat.size()));
        QCOMPARE(readable.size(), 1);
        QCOMPARE(checked->read(5), kHeartbeat.left(5));
        QCOMPARE(checked->bytesAvailable(), qint64(kHeartbeat.size() - 5));
        QCOMPARE(checked->readAll(), kHeartbeat.mid(5));
        m_clients.back()->write(kHeartbeat.mid(10));
        QTRY_COMPARE(checked->bytesAvailable(), qint64(kHeartbeat.size()));
        QCOMPARE(checked->readAll(), kHeartbeat);
    }

    void violationEndsTheConnectionAndIsLogged()
    {
        const QSignalSpy readable(connection(), &QIODevice::readyRead);
        m_clients.back()->write(kHeartbeat + frames::invoke(kServiceInterface, 0, 9, {}));
        QTRY_COMPARE(m_clients.back()->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(readable.size(), 0); // not what came with the violation, either
        QCOMPARE(warnings(),
                 QStringList{"Connection closed: \"a frame of type 6: the slot takes another "
                             "number of arguments\""});
    }

    void hostIsMadeToForgetACallOfMoreThan4KiB()
    {
        const QByteArray callOfNothing = frames::invoke(QString(), 0, 0, {});
        const int rest = frames::vpnCommand(QString()).size();
        for (int size : {4'096, 4'098}) {
            const QByteArray call = frames::vpnCommand(QString((size - rest) / 2, 'A'));
            QVERIFY(size - call.size() < 2);
            auto *checked = connection();
            m_clients.back()->write(call);
            QTRY_VERIFY(checked->bytesAvailable() > 0);
            QCOMPARE(checked->readAll(), size > 4'096 ? call + callOfNothing : call);
        }
    }

    void answersOfOneMiBMayWait()
    {
        const QStringList closed{"Connection closed: \"the client does not read its answers\""};
        auto *checked = connection();
        QCOMPARE(checked->write(QByteArray(kMiB, 'A')), qint64(kMiB));
        QCOMPARE(warnings(), QStringList());
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(checked->write("A", 1), qint64(1)); // who writes goes on as if all were well
            QCOMPARE(warnings(), closed); // said once
        }
        QCOMPARE(checked->bytesToWrite(), qint64(kMiB));
        QTRY_COMPARE(m_clients.back()->state(), QLocalSocket::UnconnectedState);
    }

    void clientsShare16MiBAndWhoGoesGivesItsPartBack_data()
    {
        QTest::addColumn<bool>("isAnswer");
        QTest::newRow("answers") << true;
        QTest::newRow("unfinished frame") << false;
    }

    void clientsShare16MiBAndWhoGoesGivesItsPartBack()
    {
        QFETCH(bool, isAnswer);
        for (int round = 0; round < 2; ++round) {
            // The event loop does not turn, so nothing of it goes out.
            for (int i = 0; i < 16; ++i)
                connection()->write(QByteArray(kMiB, 'A'));
            auto *late = connection();
            auto *socket = late->findChild<QLocalSocket *>();
            const auto hold = [&](const QByteArray &bytes) {
                if (isAnswer) {
                    late->write(bytes);
                    return;
                }
                m_clients.back()->write(bytes);
                m_clients.back()->flush();
                while (socket->waitForReadyRead(10)) {
                }
            };
            hold(QByteArray("\0\4\0\0", 4) + QByteArray(65'532, 'A')); // which everybody may have
            QCOMPARE(warnings(), QStringList());
            hold("A");
            QCOMPARE(warnings(),
                     QStringList{"Connection closed: \"too much is held for its client\""});
            cleanup();
            init();
        }
    }

    void answersThatWereReadAreHeldNoLonger()
    {
        for (int i = 0; i < 17; ++i) {
            connection()->write(QByteArray(kMiB, 'A'));
            QTRY_COMPARE(m_clients.back()->bytesAvailable(), qint64(kMiB));
        }
        QCOMPARE(warnings(), QStringList());
    }

    void connectionThatEndsLeavesNothing()
    {
        Endpoint endpoint(m_name);
        RawConnection steady(m_name);
        QVERIFY(steady.send(kAttach + kHeartbeat));
        QTRY_COMPARE(endpoint.heartbeats, 1);
        const int objects = endpoint.host.findChildren<QObject *>().size();
        {
            RawConnection attached(m_name);
            QVERIFY(attached.send(kAttach + kHeartbeat));
            QTRY_COMPARE(endpoint.heartbeats, 2);
            QVERIFY(endpoint.host.findChildren<QObject *>().size() > objects);
        }
        QTRY_COMPARE(endpoint.host.findChildren<QObject *>().size(), objects);
        // Qt would warn of a write to a connection that has ended.
        Q_EMIT endpoint.finished();
        QVERIFY(!steady.isClosedByPeer());
        QCOMPARE(warnings(), QStringList());
    }

    void closingEndsTheConnection()
    {
        const QPointer<CheckedConnection> checked(connection());
        QSignalSpy disconnected(checked, &CheckedConnection::disconnected);
        checked->close();
        QTRY_COMPARE(m_clients.back()->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(disconnected.size(), 1);
        QTRY_VERIFY(checked.isNull());
    }
};

QTEST_GUILESS_MAIN(CheckedConnectionTest)
#include "tst_checkedconnection.moc"
