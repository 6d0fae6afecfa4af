#include "client.h"
#include "daemonprocess.h"
#include "files.h"
#include "ipcurls.h"
#include "privateroot.h"

#include <QtTest/QtTest>

/// The daemon's log is a file, as launchd gives it one, and a client tries to fill the disk with
/// it.
class LogFlood : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logStaysWithin32MiBAndGoesOn()
    {
        lab::resetPrivateRoot();
        const QString name = "/tmp/talvexvpnd.log";
        DaemonProcess daemon;
        daemon.setWrapper({"/bin/sh", "-c", "exec \"$0\" 2>>" + name});
        QVERIFY(daemon.startOnly());
        Client client;
        QTRY_VERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QVERIFY(client.attachToNewEndpoint());

        // Each of these characters has two bytes in a frame and six in the log: "\u200B".
        const QString flood = QString("{\"type\":\"%1\"}").arg(QString(120'000, QChar(0x200b)));
        qint64 greatest = 0;
        for (int i = 0; i < 120; ++i) {
            client.send(flood);
            while (client.endpointSocket().bytesToWrite() > 0)
                QVERIFY(client.endpointSocket().waitForBytesWritten(5'000));
            greatest = std::max(greatest, QFileInfo(name).size());
        }
        QVERIFY2(greatest > 16'777'216 && greatest <= 33'554'432,
                 qPrintable(QString::number(greatest)));
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        const QByteArray log = lab::contentOf(name);
        QVERIFY(log.size() <= 33'554'432 && log.startsWith("Older lines were removed: "));
        QVERIFY(log.lastIndexOf("\nSend command service ")
                > log.lastIndexOf("\nresult params  \"disconnect\"\n"));
    }
};

QTEST_GUILESS_MAIN(LogFlood)
#include "tst_log_flood.moc"
