#include "ipcserver.h"

#include "client.h"
#include "files.h"
#include "ipcurls.h"
#include "localserver.h"
#include "logcapture.h"
#include "measures.h"
#include "privateroot.h"

#include <QtTest/QtTest>

/// The clients' endpoints, inside the test's own process. That they go without a word is shown with
/// LocalServer.
class IpcServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void endpointThatCannotBeOpenedUsesUpItsNumberAndLeavesNothing_data()
    {
        QTest::addColumn<int>("left"); // descriptors, besides that of the socket
        QTest::addColumn<QString>("problem");
        QTest::newRow("64 descriptors") << 64 << "";
        QTest::newRow("63 descriptors") << 63 << "too few descriptors are left";
        QTest::newRow("folder at its name") << 100 << "QLocalServer::listen: Unknown error 21";
    }

    void endpointThatCannotBeOpenedUsesUpItsNumberAndLeavesNothing()
    {
        QFETCH(int, left);
        QFETCH(QString, problem);
        const QString name = shared::getIpcProcessUrl(1);
        QVERIFY(left != 100 || QDir().mkdir(name));
        const LogCapture log;
        IpcServer server;
        {
            const measures::FewDescriptors few(left + 1);
            QCOMPARE(server.createPrivilegedProcess(), problem.isEmpty() ? 1 : -1);
        }
        QStringList lines{"Source Node Started"};
        if (problem.isEmpty()) {
            QVERIFY(QFile(name).permissions() == QFile::Permissions(0x7777)); // every user's
        } else {
            lines.append(QString("\"Unable to start the server: %1. IpcServer\"").arg(problem));
            QCOMPARE(server.children(), QObjectList());
            QVERIFY(left == 100 || !QFile::exists(name));
        }
        QCOMPARE(log.lines(), lines);
        QCOMPARE(server.createPrivilegedProcess(), 2);
    }

    void endpointIsSharedAndOutlivesItsClients()
    {
        lab::writeFile(shared::getIpcProcessUrl(1), "stale"); // which is replaced
        const LogCapture log;
        const LocalServer server;
        auto first = std::make_unique<Client>();
        QVERIFY(first->attachToNewEndpoint());
        QCOMPARE(first->endpoint(), 1);
        Client second;
        QVERIFY(second.attach(1));
        QCOMPARE(log.count("IpcServer new connection"), 2);
        // Publishing the manager again fails and is not worth more than Qt's warning.
        QCOMPARE(log.lines(QtWarningMsg).filter("Tried to register").size(), 1);

        first->disconnectTunnel();
        QTRY_COMPARE(first->answers().size(), 1);
        QTRY_COMPARE(second.answers().size(), 1);
        QCOMPARE(log.count("Source Node Started"), 1);
        first.reset();
        second.disconnectTunnel();
        QTRY_COMPARE(second.answers().size(), 2);
    }

    void eventsOfAnEndpointAreLogged()
    {
        IpcServer server;
        QCOMPARE(server.createPrivilegedProcess(), 1);
        auto *host = server.findChild<QRemoteObjectHost *>();
        const LogCapture log;
        // Without any connection there is nothing to publish on.
        QVERIFY(!host->enableRemoting(&server));
        host->setHeartbeatInterval(1'000);
        // Hosts that serve no registry never emit this by themselves, and the others come when
        // whoever logs them has gone.
        Q_EMIT host->remoteObjectRemoved({});
        Q_EMIT host->destroyed();
        Q_EMIT server.findChild<QLocalServer *>()->destroyed();
        QCOMPARE(log.lines(),
                 (QStringList{
                     "QRemoteObjectHost::error QRemoteObjectNode::OperationNotValidOnClientNode",
                     "QRemoteObjectHost::heartbeatIntervalChanged",
                     "QRemoteObjectHost::remoteObjectRemoved", "QRemoteObjectHost::destroyed",
                     "IpcServer destroyed"}));
    }
};

QTEST_GUILESS_MAIN(IpcServerTest)
#include "tst_ipcserver.moc"
