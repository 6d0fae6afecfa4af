#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "privateroot.h"

#include <QtTest/QtTest>

namespace {

constexpr qint64 kMaxLog = 33'554'432;
constexpr int kCommands = 120;

/// Each of these characters has two bytes in a frame and six in the log: "\u200B".
const QString kFlood =
    QStringLiteral("{\"type\":\"%1\"}").arg(QString(120'000, QChar(ushort{0x200b})));

const QString kLog = QStringLiteral("/tmp/talvexvpnd.log");

} // namespace

/// The daemon's log is a file, as launchd gives it one, and a client tries to fill the disk with
/// it.
class LogFlood : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void logStaysWithin32MiBAndGoesOn()
    {
        DaemonProcess daemon;
        daemon.setWrapper({QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                           QStringLiteral("exec \"$0\" 2>>") + kLog});
        QVERIFY(daemon.startOnly());
        Client client;
        QTRY_VERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QVERIFY(client.attachToNewEndpoint());

        qint64 greatest = 0;
        for (int i = 0; i < kCommands; ++i) {
            client.send(kFlood);
            while (client.endpointSocket().bytesToWrite() > 0)
                QVERIFY(client.endpointSocket().waitForBytesWritten(5'000));
            greatest = std::max(greatest, QFileInfo(kLog).size());
        }
        client.heartbeat();
        client.disconnectTunnel();
        QTRY_COMPARE(client.answers().size(), 1);
        greatest = std::max(greatest, QFileInfo(kLog).size());
        QVERIFY2(greatest > kMaxLog / 2 && greatest <= kMaxLog,
                 qPrintable(QString::number(greatest)));

        QFile log(kLog);
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QByteArray text = log.readAll();
        QVERIFY(text.size() > 15 * 1024 * 1024);
        QVERIFY(text.startsWith(
            "Older lines were removed: the log was full\nCommand status  \"\\u200B\\u200B"));
        QVERIFY(text.contains("\nReplica state is  true\n"));
        QVERIFY2(text.endsWith("}\"\n"), text.right(200).constData());
        QVERIFY(text.lastIndexOf("\nSend command service ")
                > text.lastIndexOf("\nresult params  \"disconnect\"\n"));
    }
};

QTEST_GUILESS_MAIN(LogFlood)
#include "tst_log_flood.moc"
