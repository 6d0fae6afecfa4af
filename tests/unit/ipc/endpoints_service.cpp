#include "ipcurls.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"

#include <QtCore/QDir>
#include <QtTest/QtTest>

#include <sys/stat.h>

namespace {

struct stat statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(path.toLocal8Bit().constData(), &status) != 0)
        qFatal("no such file: %s", qPrintable(path));
    return status;
}

} // namespace

/// The main socket and the endpoints, seen through the sockets of a running daemon.
class EndpointsService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyUserMayConnectToTheMainSocket()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const struct stat status = statusOf(shared::getIpcServiceUrl());
        QVERIFY(S_ISSOCK(status.st_mode));
        QCOMPARE(status.st_mode & 0777, mode_t(0777));
    }

    void everyUserMayConnectToAnEndpoint()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.connectToMainSocket());
        QCOMPARE(client.createEndpoint(), 1);
        QCOMPARE(statusOf(shared::getIpcProcessUrl(1)).st_mode & 0777, mode_t(0777));
    }

    void daemonKeepsItsUmask()
    {
        DaemonProcess daemon;
        daemon.setWrapper({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                           QStringLiteral("umask 027; exec \"$0\"")});
        QVERIFY(daemon.start());
        QFile status(QStringLiteral("/proc/%1/status").arg(daemon.pid()));
        QVERIFY(status.open(QIODevice::ReadOnly));
        QVERIFY(status.readAll().contains("Umask:\t0027\n"));
        QCOMPARE(statusOf(shared::getIpcServiceUrl()).st_mode & 0777, mode_t(0777));
    }

    void endpointsAreNumberedFromOne()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.connectToMainSocket());
        QCOMPARE(client.createEndpoint(), 1);
        QVERIFY(QFile::exists(shared::getIpcProcessUrl(1)));
        QCOMPARE(client.createEndpoint(), 2);
        QVERIFY(QFile::exists(shared::getIpcProcessUrl(2)));
        QTRY_COMPARE(daemon.count(QStringLiteral("Source Node Started")), 2);
    }

    void clientsOfTheMainSocketShareTheCounter()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client first;
        Client second;
        QVERIFY(first.connectToMainSocket());
        QVERIFY(second.connectToMainSocket());
        QTRY_COMPARE(daemon.count(QStringLiteral("LocalServer new connection")), 2);
        QCOMPARE(first.createEndpoint(), 1);
        QCOMPARE(second.createEndpoint(), 2);
        // A second publication of the same object would have brought Qt's warning.
        QCOMPARE(daemon.log().filter(QStringLiteral("Tried to register")), QStringList());
    }

    void endpointThatCannotBeOpenedUsesUpItsNumber()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QVERIFY(QDir().mkdir(shared::getIpcProcessUrl(1)));
        Client client;
        QVERIFY(client.connectToMainSocket());
        QCOMPARE(client.createEndpoint(), -1);
        QTRY_COMPARE(daemon.linesWith(QStringLiteral("\"Unable to start the server: ")),
                     QStringList{QStringLiteral("\"Unable to start the server: "
                                                "QLocalServer::listen: Unknown error 21. "
                                                "IpcServer\"")});
        QCOMPARE(client.createEndpoint(), 2);
    }

    void fileThatHasTheNameOfAnEndpointIsReplaced()
    {
        QFile stale(shared::getIpcProcessUrl(1));
        QVERIFY(stale.open(QIODevice::WriteOnly));
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        QCOMPARE(client.endpoint(), 1);
    }

    void twoConnectionsToAnEndpointShareItsManager()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client first;
        QVERIFY(first.attachToNewEndpoint());
        Client second;
        QVERIFY(second.attach(first.endpoint()));
        QTRY_COMPARE(daemon.count(QStringLiteral("IpcServer new connection")), 2);
        // Publishing the manager again fails and is not worth more than Qt's warning.
        QTRY_COMPARE(daemon.log().filter(QStringLiteral("Tried to register")).size(), 1);

        first.disconnectTunnel();
        QTRY_COMPARE(first.answers().size(), 1);
        QTRY_COMPARE(second.answers().size(), 1);
        QCOMPARE(daemon.count(QStringLiteral("Source Node Started")), 1);
    }

    void clientsThatLeaveLeaveNothingOpen()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client steady;
        QVERIFY(steady.attachToNewEndpoint());
        const int descriptors = daemon.descriptors();
        for (int i = 0; i < 50; ++i) {
            Client passing;
            QVERIFY(passing.connectToMainSocket());
            QVERIFY(passing.attach(steady.endpoint()));
        }
        QTRY_COMPARE(daemon.descriptors(), descriptors);
    }

    void clientThatHasLeftIsNoLongerAnswered()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
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
        next.disconnectTunnel();
        QTRY_COMPARE(next.answers().size(), 2);
        QVERIFY(daemon.isRunning());
        // Writing to a connection that has ended would show as a warning of Qt's.
        QCOMPARE(daemon.linesWith(QStringLiteral("Q")), QStringList());
    }
};

QTEST_GUILESS_MAIN(EndpointsService)
#include "endpoints_service.moc"
