#include "ipcurls.h"
#include "localserver.h"
#include "client.h"
#include "logcapture.h"
#include "objectwatch.h"

#include <QtCore/QFile>
#include <QtRemoteObjects/QRemoteObjectHost>
#include <QtTest/QtTest>

/// LocalServer and IpcServer inside the test's own process, where their ends can be watched.
class EndpointsLifetime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void shutdownLogsItsStepsInOrder()
    {
        LogCapture log;
        QScopedPointer<LocalServer> server(new LocalServer);
        log.clear();
        server.reset();
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("Local server stopped"),
                              QStringLiteral(" QRemoteObjectHost::destroyed LocalServer destroyed"),
                              QStringLiteral("LocalServer destroyed")}));
    }

    void shutdownAfterSeveralClientsKeepsTheOrderAndRemovesTheSockets()
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
        QVERIFY(QFile::exists(shared::getIpcServiceUrl()));
        log.clear();
        server.reset();

        QStringList lines = log.lines();
        QCOMPARE(lines.takeFirst(), QStringLiteral("Local server stopped"));
        QCOMPARE(lines.takeFirst(),
                 QStringLiteral(" QRemoteObjectHost::destroyed LocalServer destroyed"));
        QCOMPARE(lines.takeLast(), QStringLiteral("LocalServer destroyed"));
        const QStringList anEndpoint{QStringLiteral("QRemoteObjectHost::destroyed"),
                                     QStringLiteral("IpcServer destroyed")};
        QCOMPARE(lines, anEndpoint + anEndpoint + anEndpoint);
        QVERIFY(!QFile::exists(shared::getIpcServiceUrl()));
        for (int i = 1; i <= 3; ++i)
            QVERIFY(!QFile::exists(shared::getIpcProcessUrl(i)));
    }

    void eventsOfTheMainHostAreLogged()
    {
        QVector<QRemoteObjectHost *> hosts;
        QScopedPointer<LocalServer> server;
        {
            const ObjectWatch watch;
            server.reset(new LocalServer);
            for (QObject *object : ObjectWatch::objects()) {
                if (auto *host = qobject_cast<QRemoteObjectHost *>(object))
                    hosts.append(host);
            }
        }
        QCOMPARE(hosts.size(), 1);
        LogCapture log;
        hosts.first()->setHeartbeatInterval(1'000);
        Q_EMIT hosts.first()->remoteObjectRemoved({});
        Q_EMIT hosts.first()->error(QRemoteObjectNode::ListenFailed);
        QCOMPARE(
            log.lines(),
            (QStringList{
                QStringLiteral(
                    " QRemoteObjectHost::heartbeatIntervalChanged LocalServer destroyed"),
                QStringLiteral(" QRemoteObjectHost::remoteObjectRemoved LocalServer destroyed"),
                QStringLiteral(" QRemoteObjectHost::error LocalServer destroyed")}));
    }

    void eventsOfAnEndpointsHostAreLogged()
    {
        LocalServer server;
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        auto *ipcServer = server.findChild<IpcInterfaceSource *>();
        QVERIFY(ipcServer);
        auto *host = ipcServer->findChild<QRemoteObjectHost *>();
        QVERIFY(host);
        LogCapture log;
        host->setHeartbeatInterval(1'000);
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("QRemoteObjectHost::heartbeatIntervalChanged")});
        log.clear();
        // Hosts that serve no registry never emit this by themselves.
        Q_EMIT host->remoteObjectRemoved({});
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("QRemoteObjectHost::remoteObjectRemoved")});
    }

    void connectionsThatEndedLeaveNoObjects()
    {
        LocalServer server;
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        const auto objects = [&server] { return server.findChildren<QObject *>().size(); };
        const int before = objects();
        for (int i = 0; i < 10; ++i) {
            Client passing;
            QVERIFY(passing.connectToMainSocket());
            QVERIFY(passing.attach(steady.endpoint()));
            QVERIFY(objects() > before);
        }
        QTRY_COMPARE(objects(), before);
    }

    void errorOfAnEndpointsHostIsLoggedWithItsCode()
    {
        IpcServer server;
        QCOMPARE(server.createPrivilegedProcess(), 1);
        auto *host = server.findChild<QRemoteObjectHost *>();
        QVERIFY(host);
        LogCapture log;
        // Without any connection there is nothing to publish on.
        QVERIFY(!host->enableRemoting(&server));
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("QRemoteObjectHost::error "
                                            "QRemoteObjectNode::OperationNotValidOnClientNode")});
    }

    void connectionsThatEndLeaveNothingInTheirHost()
    {
        LocalServer server;
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        const auto *host =
            server.findChild<IpcInterfaceSource *>()->findChild<QRemoteObjectHost *>();
        const int before = host->children().size();
        for (int i = 0; i < 5; ++i) {
            Client passing;
            QVERIFY(passing.attach(steady.endpoint()));
            QCOMPARE(host->children().size(), before + 1);
            passing.endpointSocket().abort();
            QTRY_COMPARE(host->children().size(), before);
        }
        steady.disconnectTunnel();
        QTRY_COMPARE(steady.answers().size(), 1);
    }

    void failedEndpointLeavesNothingBehind()
    {
        QVERIFY(QDir().mkdir(shared::getIpcProcessUrl(1)));
        IpcServer server;
        LogCapture log;
        QCOMPARE(server.createPrivilegedProcess(), -1);
        QCOMPARE(server.children().size(), 0);
        QCOMPARE(log.lines().filter(QStringLiteral("destroyed")), QStringList());
        QCOMPARE(server.createPrivilegedProcess(), 2);
    }

    void serverThatCannotListenStaysAliveAndSilent()
    {
        LocalServer first;
        LogCapture log;
        {
            LocalServer second;
            QCOMPARE(log.lines(),
                     QStringList{QStringLiteral("\"Unable to start the server: "
                                                "QLocalServer::listen: Address in use. "
                                                "LocalServer\"")});
            log.clear();
        }
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Local server stopped")});
        QVERIFY(QFile::exists(shared::getIpcServiceUrl()));
    }
};

QTEST_GUILESS_MAIN(EndpointsLifetime)
#include "endpoints_lifetime.moc"
