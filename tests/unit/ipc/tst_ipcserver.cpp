#include "ipcserver.h"

#include "client.h"
#include "ipcurls.h"
#include "localserver.h"
#include "logcapture.h"
#include "privateroot.h"

#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// @return the log without what each new manager says.
QStringList linesOf(const LogCapture &log)
{
    QStringList lines = log.lines();
    lines.removeAll(QStringLiteral("Source Node Started"));
    return lines;
}

} // namespace

/// The clients' endpoints, inside the test's own process.
class IpcServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void endpointsAreNumberedFromOne()
    {
        IpcServer server;
        QCOMPARE(server.createPrivilegedProcess(), 1);
        QCOMPARE(server.createPrivilegedProcess(), 2);
        for (const char *name :
             {"/tmp/local:TalvexFreeVpnIpcInterface_1", "/tmp/local:TalvexFreeVpnIpcInterface_2"}) {
            struct stat status = {};
            QCOMPARE(::lstat(name, &status), 0);
            QVERIFY(S_ISSOCK(status.st_mode));
            QCOMPARE(status.st_mode & 0777, mode_t(0777)); // every user may connect
        }
    }

    void endpointThatCannotBeOpenedUsesUpItsNumberAndLeavesNothing()
    {
        QVERIFY(QDir().mkdir(shared::getIpcProcessUrl(1)));
        IpcServer server;
        const LogCapture log;
        QCOMPARE(server.createPrivilegedProcess(), -1);
        QCOMPARE(linesOf(log),
                 QStringList{QStringLiteral("\"Unable to start the server: QLocalServer::listen: "
                                            "Unknown error 21. IpcServer\"")});
        QCOMPARE(server.children(), QObjectList());
        QCOMPARE(server.createPrivilegedProcess(), 2);
    }

    void endpointLeaves64Descriptors_data()
    {
        QTest::addColumn<int>("left");
        QTest::addColumn<bool>("isOpened");
        QTest::newRow("64") << 64 << true;
        QTest::newRow("63") << 63 << false;
    }

    void endpointLeaves64Descriptors()
    {
        QFETCH(int, left);
        QFETCH(bool, isOpened);
        IpcServer server;
        const LogCapture log;
        rlimit former = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &former), 0);
        const auto restore = qScopeGuard([&] { ::setrlimit(RLIMIT_NOFILE, &former); });
        const int next = ::dup(0); // the number that the listening socket will have
        ::close(next);
        const rlimit small = {static_cast<rlim_t>(next + 1 + left), former.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &small), 0);
        QCOMPARE(server.createPrivilegedProcess(), isOpened ? 1 : -1);
        QCOMPARE(linesOf(log),
                 isOpened ? QStringList()
                          : QStringList(QStringLiteral("\"Unable to start the server: too few "
                                                       "descriptors are left. IpcServer\"")));
        QCOMPARE(QFile::exists(shared::getIpcProcessUrl(1)), isOpened);
        ::setrlimit(RLIMIT_NOFILE, &former);
        QCOMPARE(server.createPrivilegedProcess(), 2);
    }

    void fileThatHasTheNameOfAnEndpointIsReplaced()
    {
        QFile stale(shared::getIpcProcessUrl(1));
        QVERIFY(stale.open(QIODevice::WriteOnly));
        LocalServer server;
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QCOMPARE(client.endpoint(), 1);
    }

    void twoConnectionsToAnEndpointShareItsManager()
    {
        const LogCapture log;
        LocalServer server;
        Client first;
        QVERIFY(first.attachToNewEndpoint());
        Client second;
        QVERIFY(second.attach(first.endpoint()));
        QCOMPARE(log.count(QStringLiteral("IpcServer new connection")), 2);
        // Publishing the manager again fails and is not worth more than Qt's warning.
        QCOMPARE(log.lines(QtWarningMsg).filter(QStringLiteral("Tried to register")).size(), 1);

        first.disconnectTunnel();
        QTRY_COMPARE(first.answers().size(), 1);
        QTRY_COMPARE(second.answers().size(), 1);
        QCOMPARE(log.count(QStringLiteral("Source Node Started")), 1);
    }

    void endpointOutlivesItsClients()
    {
        LocalServer server;
        int endpoint = 0;
        {
            Client passing;
            QVERIFY(passing.attachToNewEndpoint());
            endpoint = passing.endpoint();
        }
        Client next;
        QVERIFY(next.attach(endpoint));
        next.disconnectTunnel();
        QTRY_COMPARE(next.answers().size(), 1);
    }

    void eventsOfAnEndpointsHostAreLogged()
    {
        IpcServer server;
        QCOMPARE(server.createPrivilegedProcess(), 1);
        auto *host = server.findChild<QRemoteObjectHost *>();
        QVERIFY(host);
        LogCapture log;
        // Without any connection there is nothing to publish on.
        QVERIFY(!host->enableRemoting(&server));
        host->setHeartbeatInterval(1'000);
        // Hosts that serve no registry never emit this by themselves.
        Q_EMIT host->remoteObjectRemoved({});
        QCOMPARE(linesOf(log),
                 (QStringList{QStringLiteral("QRemoteObjectHost::error "
                                             "QRemoteObjectNode::OperationNotValidOnClientNode"),
                              QStringLiteral("QRemoteObjectHost::heartbeatIntervalChanged"),
                              QStringLiteral("QRemoteObjectHost::remoteObjectRemoved")}));
    }

    void endsOfAnEndpointsObjectsAreLogged()
    {
        IpcServer server;
        QCOMPARE(server.createPrivilegedProcess(), 1);
        const LogCapture log;
        Q_EMIT server.findChild<QRemoteObjectHost *>()->destroyed();
        Q_EMIT server.findChild<QLocalServer *>()->destroyed();
        QCOMPARE(linesOf(log),
                 (QStringList{QStringLiteral("QRemoteObjectHost::destroyed"),
                              QStringLiteral("IpcServer destroyed")}));
    }

    /// Endpoints end with it, in silence: the connections that log have gone before.
    void endIsSilent()
    {
        const LogCapture log;
        {
            IpcServer server;
            QCOMPARE(server.createPrivilegedProcess(), 1);
            QCOMPARE(server.createPrivilegedProcess(), 2);
        }
        QCOMPARE(linesOf(log), QStringList());
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(1)));
        QVERIFY(!QFile::exists(shared::getIpcProcessUrl(2)));
    }
};

QTEST_GUILESS_MAIN(IpcServerTest)
#include "tst_ipcserver.moc"
