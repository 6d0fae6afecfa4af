#include "localserver.h"

#include "client.h"
#include "ipcurls.h"
#include "logcapture.h"
#include "privateroot.h"
#include "rawconnection.h"

#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kTaken = QStringLiteral("\"Unable to start the server: QLocalServer::listen: "
                                      "Address in use. LocalServer\"");

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

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void everyUserMayConnect()
    {
        const mode_t former = ::umask(027);
        const LocalServer server;
        QCOMPARE(::umask(former), mode_t(027)); // and the umask stays as it was
        struct stat status = {};
        QCOMPARE(::lstat("/tmp/local:TalvexFreeVpnIpcInterface", &status), 0);
        QVERIFY(S_ISSOCK(status.st_mode));
        QCOMPARE(status.st_mode & 0777, mode_t(0777));
    }

    void clientsShareOneIpcServerThatIsPublishedOnce()
    {
        const LogCapture log;
        const LocalServer server;
        Client first;
        Client second;
        QVERIFY(first.connectToMainSocket());
        QVERIFY(second.connectToMainSocket());
        QCOMPARE(log.count(QStringLiteral("LocalServer new connection")), 2);
        QCOMPARE(first.createEndpoint(), 1);
        QCOMPARE(second.createEndpoint(), 2);
        // A second publication of the same object would have brought Qt's warning.
        QCOMPARE(log.lines(QtWarningMsg), QStringList());
    }

    void firstConnectionThatIsRefusedDoesNoHarm()
    {
        const LocalServer server;
        LogCapture log;
        rlimit former = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &former), 0);
        {
            RawConnection refused(shared::getIpcServiceUrl());
            const rlimit small = {20, former.rlim_max};
            QCOMPARE(::setrlimit(RLIMIT_NOFILE, &small), 0);
            QTRY_VERIFY(refused.isClosedByPeer());
        }
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &former), 0);
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("LocalServer new connection"),
                              QStringLiteral("Connection refused: too few descriptors are left")}));
        Client client;
        QVERIFY(client.connectToMainSocket());
    }

    void shutdownLogsThreeLinesAndRemovesTheSockets()
    {
        LogCapture log;
        QScopedPointer<LocalServer> server(new LocalServer);
        QVector<QSharedPointer<Client>> clients;
        for (int i = 1; i <= 3; ++i) {
            clients.append(QSharedPointer<Client>::create());
            QVERIFY(clients.last()->attachToNewEndpoint());
            QCOMPARE(clients.last()->endpoint(), i);
        }
        clients.removeAt(1); // one has gone before, two are still there
        log.clear();
        server.reset();
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("Local server stopped"),
                              QStringLiteral(" QRemoteObjectHost::destroyed LocalServer destroyed"),
                              QStringLiteral("LocalServer destroyed")}));
        QVERIFY(!QFile::exists(shared::getIpcServiceUrl()));
        for (int i = 1; i <= 3; ++i)
            QVERIFY(!QFile::exists(shared::getIpcProcessUrl(i)));
    }

    void eventsOfTheHostAreLogged()
    {
        const HostFinder finder;
        const LocalServer server;
        const RawConnection client(shared::getIpcServiceUrl());
        QTRY_VERIFY(finder.host);
        const LogCapture log;
        finder.host->setHeartbeatInterval(1'000);
        // Hosts that serve no registry never emit this by themselves.
        Q_EMIT finder.host->remoteObjectRemoved({});
        Q_EMIT finder.host->error(QRemoteObjectNode::ListenFailed);
        QCOMPARE(
            log.lines(),
            (QStringList{
                QStringLiteral(
                    " QRemoteObjectHost::heartbeatIntervalChanged LocalServer destroyed"),
                QStringLiteral(" QRemoteObjectHost::remoteObjectRemoved LocalServer destroyed"),
                QStringLiteral(" QRemoteObjectHost::error LocalServer destroyed")}));
    }

    void nameThatIsTakenIsLeftAlone()
    {
        const LocalServer first;
        LogCapture log;
        {
            const LocalServer second;
            QCOMPARE(log.lines(), QStringList{kTaken});
            log.clear();
        }
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Local server stopped")});
        Client client;
        QVERIFY(client.connectToMainSocket());
    }

    void staleFileIsLeftAlone()
    {
        QFile stale(shared::getIpcServiceUrl());
        QVERIFY(stale.open(QIODevice::WriteOnly) && stale.write("stale") == 5);
        stale.close();
        const LogCapture log;
        const LocalServer server;
        QCOMPARE(log.lines(), QStringList{kTaken});
        QCOMPARE(stale.size(), qint64(5));
    }

    void whatAnotherUserPutThereIsReplaced_data()
    {
        QTest::addColumn<bool>("isSocket");
        QTest::newRow("socket") << true;
        QTest::newRow("dangling link") << false;
    }

    void whatAnotherUserPutThereIsReplaced()
    {
        QFETCH(bool, isSocket);
        QLocalServer other;
        if (isSocket)
            QVERIFY(other.listen(shared::getIpcServiceUrl()));
        else
            QVERIFY(QFile::link(QStringLiteral("/nowhere"), shared::getIpcServiceUrl()));
        if (::lchown("/tmp/local:TalvexFreeVpnIpcInterface", 1, 1) != 0)
            QSKIP("There is no other user here");
        const LogCapture log;
        const LocalServer server;
        QCOMPARE(log.lines(), QStringList());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
    }

    void folderOfAnotherUserIsLeftAlone()
    {
        QVERIFY(QDir().mkdir(shared::getIpcServiceUrl()));
        if (::lchown("/tmp/local:TalvexFreeVpnIpcInterface", 1, 1) != 0)
            QSKIP("There is no other user here");
        const LogCapture log;
        const LocalServer server;
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("\"Unable to start the server: QLocalServer::listen: "
                                            "Unknown error 21. LocalServer\"")});
    }
};

QTEST_GUILESS_MAIN(LocalServerTest)
#include "tst_localserver.moc"
