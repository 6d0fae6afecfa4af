#include "localserver.h"

#include "client.h"
#include "ipcurls.h"
#include "logcapture.h"
#include "measures.h"
#include "privateroot.h"
#include "rawconnection.h"

#include <QtTest/QtTest>

#include <unistd.h>

namespace {

/// Finds the hosts of the process while it lives: they are told of each child that they get.
class HostFinder : public QObject
{
public:
    HostFinder() { QCoreApplication::instance()->installEventFilter(this); }
    QRemoteObjectHost *host = nullptr;

protected:
    bool eventFilter(QObject *watched, QEvent *) override
    {
        if (auto *found = qobject_cast<QRemoteObjectHost *>(watched))
            host = found;
        return false;
    }
};

} // namespace

/// The main socket, inside the test's own process.
class LocalServerTest : public QObject
{
    Q_OBJECT

private:
    const QString m_name = shared::getIpcServiceUrl();

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    /// One that is refused publishes nothing.
    void connectionLeaves32Descriptors()
    {
        const LocalServer server;
        const LogCapture log;
        {
            RawConnection refused(m_name);
            const measures::FewDescriptors few(32); // of which the server's end takes one
            QTRY_VERIFY(refused.isClosedByPeer());
        }
        {
            const RawConnection accepted(m_name);
            const measures::FewDescriptors few(33);
            QTRY_COMPARE(log.count("LocalServer new connection"), 2);
        }
        QCOMPARE(log.lines(),
                 (QStringList{"LocalServer new connection",
                              "Connection refused: too few descriptors are left",
                              "LocalServer new connection"}));
        QVERIFY(Client().connectToMainSocket());
    }

    void clientsShareOneIpcServerAndShutdownLogsThreeLines()
    {
        LogCapture log;
        QScopedPointer<LocalServer> server(new LocalServer);
        QVERIFY(QFile(m_name).permissions() == QFile::Permissions(0x7777)); // every user's
        Clients clients = attachedClients(3);
        QCOMPARE(clients.back()->endpoint(), 3);
        QCOMPARE(log.count("LocalServer new connection"), 3);
        // A second publication of the same object would have brought Qt's warning.
        QCOMPARE(log.lines(QtWarningMsg), QStringList());
        clients[1].reset(); // one has gone before, two are still there
        log.clear();
        server.reset();
        QCOMPARE(log.lines(),
                 (QStringList{"Local server stopped",
                              " QRemoteObjectHost::destroyed LocalServer destroyed",
                              "LocalServer destroyed"}));
        QCOMPARE(QDir("/tmp").entryList({"local:*"}, QDir::System), QStringList());
    }

    void eventsOfTheHostAreLogged()
    {
        const HostFinder finder;
        const LocalServer server;
        const RawConnection client(m_name);
        QTRY_VERIFY(finder.host);
        const LogCapture log;
        finder.host->setHeartbeatInterval(1'000);
        // Hosts that serve no registry never emit this by themselves.
        Q_EMIT finder.host->remoteObjectRemoved({});
        Q_EMIT finder.host->error(QRemoteObjectNode::ListenFailed);
        QCOMPARE(log.lines(),
                 (QStringList{" QRemoteObjectHost::heartbeatIntervalChanged LocalServer destroyed",
                              " QRemoteObjectHost::remoteObjectRemoved LocalServer destroyed",
                              " QRemoteObjectHost::error LocalServer destroyed"}));
    }

    /// What the own user has there is left alone, as tst_start shows.
    void socketOfAnotherUserIsReplaced()
    {
        QLocalServer other;
        QVERIFY(other.listen(m_name));
        if (::chown(qPrintable(m_name), 1, 1) != 0)
            QSKIP("There is no other user here");
        const LogCapture log;
        const LocalServer server;
        QCOMPARE(log.lines(), QStringList());
        QVERIFY(Client().attachToNewEndpoint());
    }

    void folderOfAnotherUserMakesTheListenFail()
    {
        if (!QDir().mkdir(m_name) || ::chown(qPrintable(m_name), 1, 1) != 0)
            QSKIP("There is no other user here");
        const LogCapture log;
        std::make_unique<LocalServer>().reset();
        QCOMPARE(log.lines(),
                 (QStringList{"\"Unable to start the server: QLocalServer::listen: Unknown error "
                              "21. LocalServer\"",
                              "Local server stopped"}));
    }
};

QTEST_GUILESS_MAIN(LocalServerTest)
#include "tst_localserver.moc"
