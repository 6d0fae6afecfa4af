#include "daemonprocess.h"
#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <unistd.h>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

/// How this program calls itself in the process list.
char ownName[] = "daemonstatus";

const QString kTrue = "result output  true";
const QString kFalse = "result output  false";

} // namespace

/// Whether the daemon is installed and running, as the process list of a private root shows it.
class MacPlatformDaemonStatus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { lab::resetPrivateRoot(); }

    void daemonIsInstalledWithItsPropertyList()
    {
        QVERIFY(!MacPlatform::isDemonPlistExist());
        QVERIFY(QFile("/Library/LaunchDaemons/TalvexVpnd.plist").open(QIODevice::WriteOnly));
        QVERIFY(MacPlatform::isDemonPlistExist());
    }

    void daemonIsLoadedWhileItRuns()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        LogCapture log;
        QVERIFY(MacPlatform::isDemonLoad());
        const QStringList lines = log.lines(QtDebugMsg);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].contains(QString(" %1 ").arg(daemon.pid())));
        QVERIFY(lines[0].endsWith("/MacOS/talvexvpnd\\n\""));
        QCOMPARE(lines[1], kTrue);
        daemon.kill();
        log.clear();
        QVERIFY(!MacPlatform::isDemonLoad());
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{"\"\"", kFalse}));
    }

    void nameAnywhereInACommandLineCounts_data()
    {
        QTest::addColumn<bool>("counts");
        QTest::newRow("talvexvpnd.log") << true;
        QTest::newRow("TalvexVpnd") << false;
    }

    void nameAnywhereInACommandLineCounts()
    {
        QFETCH(bool, counts);
        QProcess other;
        other.start("/bin/bash", {"-c", "read line", QTest::currentDataTag()});
        QVERIFY(other.waitForStarted());
        QCOMPARE(MacPlatform::isDemonLoad(), counts);
        other.kill();
        QVERIFY(other.waitForFinished());
    }

    void listThatTakesLongerThanTheLimitIsNotWaitedFor()
    {
        const QByteArray searchPath = qgetenv("PATH");
        standins::writeTool("/tmp/bin/ps", "sleep 120; echo talvexvpnd\n");
        qputenv("PATH", "/tmp/bin:" + searchPath);
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const bool loaded = MacPlatform::isDemonLoad(100ms);
        const qint64 elapsed = timer.elapsed();
        qputenv("PATH", searchPath);
        QVERIFY(!loaded);
        QVERIFY2(elapsed >= 100 && elapsed < 5'000, qPrintable(QString::number(elapsed)));
        QCOMPARE(log.lines(), (QStringList{"\"\"", kFalse}));
    }
};

int main(int argc, char **argv)
{
    // The folder of the build may be named like the daemon, and the process list shows it.
    if (qstrcmp(argv[0], ownName) != 0) {
        argv[0] = ownName;
        execv("/proc/self/exe", argv);
        qFatal("cannot start again under another name");
    }
    QCoreApplication application(argc, argv);
    MacPlatformDaemonStatus test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform_daemonstatus.moc"
