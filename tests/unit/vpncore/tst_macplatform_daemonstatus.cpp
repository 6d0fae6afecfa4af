#include "daemonprocess.h"
#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"

#include <QtTest/QtTest>

#include <unistd.h>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

/// How this program calls itself in the process list.
char ownName[] = "daemonstatus";

const QString kTrue = QStringLiteral("result output  true");
const QString kFalse = QStringLiteral("result output  false");

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
        QFile plist(QStringLiteral("/Library/LaunchDaemons/TalvexVpnd.plist"));
        QVERIFY(plist.open(QIODevice::WriteOnly));
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
        QVERIFY2(lines[0].startsWith(QLatin1String("\"root ")), qPrintable(lines[0]));
        QVERIFY(lines[0].contains(QStringLiteral(" %1 ").arg(daemon.pid())));
        QVERIFY(lines[0].endsWith(QLatin1String("/MacOS/talvexvpnd\\n\"")));
        QCOMPARE(lines[1], kTrue);

        daemon.kill();
        log.clear();
        QVERIFY(!MacPlatform::isDemonLoad());
        QCOMPARE(log.lines(QtDebugMsg), (QStringList{QStringLiteral("\"\""), kFalse}));
    }

    void nameAnywhereInACommandLineCounts_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<bool>("counts");
        QTest::newRow("part of an argument") << QStringLiteral("talvexvpnd.log") << true;
        QTest::newRow("in capitals") << QStringLiteral("TalvexVpnd") << false;
    }

    void nameAnywhereInACommandLineCounts()
    {
        QFETCH(QString, argument);
        QFETCH(bool, counts);
        QProcess other;
        other.start(QStringLiteral("/bin/bash"),
                    {QStringLiteral("-c"), QStringLiteral("read line"), argument});
        QVERIFY(other.waitForStarted());
        QCOMPARE(MacPlatform::isDemonLoad(), counts);
        other.kill();
        QVERIFY(other.waitForFinished());
    }

    void listThatTakesLongerThanTheLimitIsNotWaitedFor()
    {
        // It goes on until its folder is gone.
        QTemporaryDir folder;
        QFile ps(folder.filePath(QStringLiteral("ps")));
        QVERIFY(ps.open(QIODevice::WriteOnly));
        ps.write("#!/bin/bash\nwhile [[ -e $0 ]]; do sleep 0.05; done\necho talvexvpnd\n");
        ps.close();
        QVERIFY(ps.setPermissions(ps.permissions() | QFile::ExeOwner));
        const QByteArray searchPath = qgetenv("PATH");
        qputenv("PATH", folder.path().toLocal8Bit() + ':' + searchPath);

        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const bool loaded = MacPlatform::isDemonLoad(100ms);
        const qint64 elapsed = timer.elapsed();
        qputenv("PATH", searchPath);

        QVERIFY(!loaded);
        QVERIFY2(elapsed >= 100 && elapsed < 5'000, qPrintable(QString::number(elapsed)));
        QCOMPARE(log.lines(), (QStringList{QStringLiteral("\"\""), kFalse}));
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
