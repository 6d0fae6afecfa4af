#include "socketname.h"

#include "logcapture.h"

#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <unistd.h>

/// What may stand at the name of a socket, in a folder of the test's own.
class SocketNameTest : public QObject
{
    Q_OBJECT

private:
    void make(const QString &what)
    {
        if (what == QLatin1String("file")) {
            QFile file(m_path);
            QVERIFY(file.open(QIODevice::WriteOnly));
        } else if (what == QLatin1String("dangling link")) {
            QVERIFY(QFile::link(QStringLiteral("/nowhere"), m_path));
        } else if (what == QLatin1String("folder")) {
            QVERIFY(QDir().mkdir(m_path));
        } else if (what == QLatin1String("socket")) {
            m_server.reset(new QLocalServer);
            QVERIFY(m_server->listen(m_path));
        }
    }

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<QLocalServer> m_server;
    QString m_path;

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        m_path = m_folder->filePath(QStringLiteral("socket"));
    }

    void cleanup() { m_server.reset(); }

    void onlyThingsOfTheOwnUserTakeTheName_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<bool>("isOwn");
        QTest::addColumn<bool>("isTaken");
        QTest::newRow("nothing") << QString() << true << false;
        for (const char *what : {"file", "dangling link", "folder", "socket"}) {
            QTest::newRow(what) << QString::fromLatin1(what) << true << true;
            QTest::newRow(qPrintable(QString::fromLatin1(what) + QStringLiteral(" of another")))
                << QString::fromLatin1(what) << false << false;
        }
    }

    void onlyThingsOfTheOwnUserTakeTheName()
    {
        QFETCH(QString, what);
        QFETCH(bool, isOwn);
        QFETCH(bool, isTaken);
        make(what);
        if (!isOwn && ::lchown(QFile::encodeName(m_path).constData(), 1, 1) != 0)
            QSKIP("There is no other user here");
        QCOMPARE(socketname::isTakenByOwnUser(m_path), isTaken);

        const bool isOwnSocket = isOwn && what == QLatin1String("socket");
        LogCapture log;
        socketname::warnUnlessOwnSocket(m_path);
        QCOMPARE(log.lines(QtWarningMsg),
                 isOwnSocket ? QStringList()
                             : QStringList(QStringLiteral("Something else stands at the name of "
                                                          "the main socket: \"%1\"")
                                               .arg(m_path)));
    }

    void takenNameIsReportedAsQtReportsIt()
    {
        make(QStringLiteral("file"));
        QLocalServer server;
        QVERIFY(!server.listen(m_path));
        QCOMPARE(socketname::addressInUse(),
                 QStringLiteral("QLocalServer::listen: Address in use"));
        QCOMPARE(server.errorString(), socketname::addressInUse());
    }
};

QTEST_GUILESS_MAIN(SocketNameTest)
#include "tst_socketname.moc"
