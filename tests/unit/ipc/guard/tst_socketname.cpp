#include "socketname.h"

#include "logcapture.h"

#include <QtTest/QtTest>

#include <unistd.h>

/// What may stand at the name of a socket, in a folder of the test's own.
class SocketNameTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void onlyThingsOfTheOwnUserTakeTheName_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<bool>("isOwn");
        for (const char *what : {"nothing", "file", "dangling link", "folder", "socket"}) {
            QTest::newRow(what) << QString::fromLatin1(what) << true;
            QTest::addRow("%s of another", what) << QString::fromLatin1(what) << false;
        }
    }

    void onlyThingsOfTheOwnUserTakeTheName()
    {
        QFETCH(QString, what);
        QFETCH(bool, isOwn);
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("name"));
        QLocalServer server;
        if (what == QLatin1String("file"))
            QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        else if (what == QLatin1String("dangling link"))
            QVERIFY(QFile::link(QStringLiteral("/nowhere"), path));
        else if (what == QLatin1String("folder"))
            QVERIFY(QDir().mkdir(path));
        else if (what == QLatin1String("socket"))
            QVERIFY(server.listen(path));
        if (!isOwn && ::lchown(QFile::encodeName(path).constData(), 1, 1) != 0)
            QSKIP("There is no other user here");
        QCOMPARE(socketname::isTakenByOwnUser(path), isOwn && what != QLatin1String("nothing"));

        QStringList warnings;
        if (!isOwn || what != QLatin1String("socket"))
            warnings.append(
                QStringLiteral("Something else stands at the name of the main socket: \"%1\"")
                    .arg(path));
        LogCapture log;
        socketname::warnUnlessOwnSocket(path);
        QCOMPARE(log.lines(), warnings);

        // Qt itself, without WorldAccessOption, says the same of every one of them.
        QLocalServer second;
        if (what != QLatin1String("nothing") && !second.listen(path))
            QCOMPARE(second.errorString(), socketname::addressInUse());
        QCOMPARE(socketname::addressInUse(),
                 QStringLiteral("QLocalServer::listen: Address in use"));
    }
};

QTEST_GUILESS_MAIN(SocketNameTest)
#include "tst_socketname.moc"
