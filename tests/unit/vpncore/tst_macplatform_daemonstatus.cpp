#include "daemonprocess.h"
#include "logcapture.h"
#include "macplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

#include <unistd.h>

using vpncore::MacPlatform;

namespace {

const QString kPlist = QStringLiteral("/Library/LaunchDaemons/TalvexVpnd.plist");

/// How this program calls itself in the process list.
char ownName[] = "daemonstatus";

} // namespace

/// Whether the daemon is installed and running, as the process list of a private root shows it.
class MacPlatformDaemonStatus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { QFile::remove(kPlist); }

    void withoutThePropertyListTheDaemonIsNotInstalled()
    {
        QVERIFY(!MacPlatform::isDemonPlistExist());
    }

    void withThePropertyListTheDaemonIsInstalled()
    {
        QFile plist(kPlist);
        QVERIFY(plist.open(QIODevice::WriteOnly));
        QVERIFY(MacPlatform::isDemonPlistExist());
    }

    void withoutTheDaemonItIsNotLoaded()
    {
        LogCapture log;
        QVERIFY(!MacPlatform::isDemonLoad());
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("\"\""), QStringLiteral("result output  false")}));
    }

    void aRunningDaemonIsLoaded()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QVERIFY(MacPlatform::isDemonLoad());
    }

    void aDaemonThatHasEndedIsNotLoaded()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        QVERIFY(MacPlatform::isDemonLoad());
        daemon.kill();
        QVERIFY(!MacPlatform::isDemonLoad());
    }

    void theProcessThatWasFoundIsLoggedInQuotes()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.startOnly());
        LogCapture log;
        MacPlatform::isDemonLoad();
        const QStringList lines = log.lines(QtDebugMsg);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].startsWith(QLatin1String("\"root ")));
        QVERIFY(lines[0].contains(QStringLiteral(" %1 ").arg(daemon.pid())));
        QVERIFY(lines[0].endsWith(
            QLatin1String("/Applications/Talvex VPN.app/Contents/MacOS/talvexvpnd\\n\"")));
        QCOMPARE(lines[1], QStringLiteral("result output  true"));
    }

    void aProcessWithTheNameAmongItsArgumentsCounts()
    {
        QProcess other;
        other.start(
            QStringLiteral("/bin/bash"),
            {QStringLiteral("-c"), QStringLiteral("read line"), QStringLiteral("talvexvpnd.log")});
        QVERIFY(other.waitForStarted());
        QVERIFY(MacPlatform::isDemonLoad());
        other.kill();
        QVERIFY(other.waitForFinished());
    }

    void aProcessWithTheNameInCapitalsDoesNotCount()
    {
        QProcess other;
        other.start(
            QStringLiteral("/bin/bash"),
            {QStringLiteral("-c"), QStringLiteral("read line"), QStringLiteral("TalvexVpnd")});
        QVERIFY(other.waitForStarted());
        QVERIFY(!MacPlatform::isDemonLoad());
        other.kill();
        QVERIFY(other.waitForFinished());
    }

    void aProcessListThatTakesLongerThanTwoSecondsIsNotWaitedFor()
    {
        QTemporaryDir folder;
        QFile ps(folder.filePath(QStringLiteral("ps")));
        QVERIFY(ps.open(QIODevice::WriteOnly));
        ps.write("#!/bin/bash\nsleep 6\necho 'root 1 talvexvpnd'\n");
        ps.close();
        QVERIFY(ps.setPermissions(ps.permissions() | QFile::ExeOwner));
        const QByteArray searchPath = qgetenv("PATH");
        qputenv("PATH", folder.path().toLocal8Bit() + ':' + searchPath);

        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const bool loaded = MacPlatform::isDemonLoad();
        const qint64 elapsed = timer.elapsed();
        qputenv("PATH", searchPath);

        QVERIFY(!loaded);
        QVERIFY2(elapsed >= 2'000 && elapsed < 4'000, qPrintable(QString::number(elapsed)));
        QCOMPARE(log.count(QStringLiteral("\"\"")), 1);
        QCOMPARE(log.lines().last(), QStringLiteral("result output  false"));
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
