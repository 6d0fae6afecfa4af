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
            QTest::newRow(what) << what << true;
            QTest::addRow("%s of another", what) << what << false;
        }
    }

    void onlyThingsOfTheOwnUserTakeTheName()
    {
        QFETCH(QString, what);
        QFETCH(bool, isOwn);
        const QTemporaryDir folder;
        const QString path = folder.filePath("name");
        QLocalServer server;
        QVERIFY(what == "nothing" || (what == "file" && QFile(path).open(QIODevice::WriteOnly))
                || (what == "dangling link" && QFile::link("/nowhere", path))
                || (what == "folder" && QDir().mkdir(path))
                || (what == "socket" && server.listen(path)));
        if (!isOwn && ::lchown(qPrintable(path), 1, 1) != 0)
            QSKIP("There is no other user here");
        QCOMPARE(socketname::isTakenByOwnUser(path), isOwn && what != "nothing");

        QStringList warnings{
            QString("Something else stands at the name of the main socket: \"%1\"").arg(path)};
        if (isOwn && what == "socket")
            warnings.clear();
        const LogCapture log;
        socketname::warnUnlessOwnSocket(path);
        QCOMPARE(log.lines(), warnings);
    }
};

QTEST_GUILESS_MAIN(SocketNameTest)
#include "tst_socketname.moc"
