#include "localserver.h"

#include "client.h"
#include "ipcurls.h"
#include "logcapture.h"
#include "measures.h"
#include "privateroot.h"
#include "rawconnection.h"

#include <QtTest/QtTest>

#include <sys/stat.h>
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

    void connectionThatIsRefusedPublishesNothing()
    {
        const LocalServer server;
        LogCapture log;
        {
            RawConnection refused(shared::getIpcServiceUrl());
            const measures::FewDescriptors few(20);
            QTRY_VERIFY(refused.isClosedByPeer());
        }
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("LocalServer new connection"),
                              QStringLiteral("Connection refused: too few descriptors are left")}));
        Client client;
        QVERIFY(client.connectToMainSocket());
    }

    void clientsShareOneIpcServerAndShutdownLogsThreeLines()
    {
        LogCapture log;
        QScopedPointer<LocalServer> server(new LocalServer);
        QVector<QSharedPointer<Client>> clients;
        for (int i = 1; i <= 3; ++i) {
            clients.append(QSharedPointer<Client>::create());
            QVERIFY(clients.last()->attachToNewEndpoint());
            QCOMPARE(clients.last()->endpoint(), i);
        }
        QCOMPARE(log.count(QStringLiteral("LocalServer new connection")), 3);
        // A second publication of the same object would have brought Qt's warning.
        QCOMPARE(log.lines(QtWarningMsg), QStringList());
        clients.removeAt(1); // one has gone before, two are still there
        log.clear();
        server.reset();
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("Local server stopped"),
                              QStringLiteral(" QRemoteObjectHost::destroyed LocalServer destroyed"),
                              QStringLiteral("LocalServer destroyed")}));
        QCOMPARE(QDir(QStringLiteral("/tmp")).entryList({QStringLiteral("local:*")}, QDir::System),
                 QStringList());
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
        QStringList lines;
        for (const char *event : {"heartbeatIntervalChanged", "remoteObjectRemoved", "error"})
            lines.append(QStringLiteral(" QRemoteObjectHost::%1 LocalServer destroyed")
                             .arg(QLatin1String(event)));
        QCOMPARE(log.lines(), lines);
    }

    void nameOfTheOwnUserIsLeftAlone_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<bool>("isOwn");
        QTest::addColumn<QString>("problem");
        const QString inUse = QStringLiteral("Address in use");
        QTest::newRow("live server") << "socket" << true << inUse;
        QTest::newRow("file") << "file" << true << inUse;
        QTest::newRow("socket of another user") << "socket" << false << QString();
        QTest::newRow("dangling link of another user") << "link" << false << QString();
        QTest::newRow("folder of another user") << "folder" << false << "Unknown error 21";
    }

    void nameOfTheOwnUserIsLeftAlone()
    {
        QFETCH(QString, what);
        QFETCH(bool, isOwn);
        QFETCH(QString, problem);
        const QString path = shared::getIpcServiceUrl();
        QScopedPointer<LocalServer> first;
        if (what == QLatin1String("socket"))
            first.reset(new LocalServer);
        else if (what == QLatin1String("link"))
            QVERIFY(QFile::link(QStringLiteral("/nowhere"), path));
        else if (what == QLatin1String("folder"))
            QVERIFY(QDir().mkdir(path));
        else
            QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        if (!isOwn && ::lchown(QFile::encodeName(path).constData(), 1, 1) != 0)
            QSKIP("There is no other user here");
        LogCapture log;
        {
            const LocalServer server;
            QCOMPARE(log.lines(),
                     problem.isEmpty()
                         ? QStringList()
                         : QStringList(QStringLiteral("\"Unable to start the server: "
                                                      "QLocalServer::listen: %1. LocalServer\"")
                                           .arg(problem)));
            Client client;
            QVERIFY(!problem.isEmpty() || client.attachToNewEndpoint());
            log.clear();
        }
        QVERIFY(problem.isEmpty()
                || log.lines() == QStringList{QStringLiteral("Local server stopped")});
        Client client;
        QVERIFY(!isOwn || !first || client.connectToMainSocket());
    }
};

QTEST_GUILESS_MAIN(LocalServerTest)
#include "tst_localserver.moc"
