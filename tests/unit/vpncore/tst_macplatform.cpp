#include "macplatform.h"

#include "logcapture.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <cstdio>
#include <cstring>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

/// Run by a test: tell the paths that a copy of this program elsewhere finds.
const QString kTellPaths = "--tell-paths";

/// Some commands wait for this file.
const QString kGo = "/tmp/go";
const QString kWait = "until [ -e /tmp/go ]; do sleep 0.02; done; ";

constexpr int kFinished = 0;
constexpr int kFailedToStart = 1;
constexpr int kTimedOut = 2;

void tellPaths()
{
    qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            std::printf("%d %s %s\n", type, context.category, qPrintable(text));
        });
    for (const QString &path :
         {MacPlatform::resourcesDir(), MacPlatform::programmDir(), MacPlatform::applicationPath()})
        std::printf("%s\n", qPrintable(path));
}

/// @return a command line that has bash run @p script, which must not hold a double quote.
QString bash(const QString &script)
{
    return QString("/bin/bash -c \"%1\"").arg(script);
}

} // namespace

/// Where the program finds the parts of its bundle, how it runs commands, and whether the daemon is
/// installed and running.
class MacPlatformTest : public QObject
{
    Q_OBJECT

private:
    int run(const QString &command, int timeout = std::numeric_limits<int>::max())
    {
        m_timer.start();
        return MacPlatform::runProcess(command, timeout, m_output);
    }

    QString m_output;
    QElapsedTimer m_timer;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_output = "before ";
    }

    void limitsAreTheAgreedOnes()
    {
        QVERIFY(vpncore::kDnsScriptLimit == 10s);
        QVERIFY(MacPlatform::kProcessListLimit == 2s);
        const vpncore::MacPlatformLimits limits;
        QVERIFY(limits.tool == 30s);
        QVERIFY(limits.listing == 30s);
        QVERIFY(limits.servicePause == 3500ms);
    }

    void pathsFollowTheExecutable_data()
    {
        QTest::addColumn<bool>("hasResources");
        QTest::addColumn<QStringList>("paths");
        const auto row = [](const char *executable, bool hasResources, const QStringList &paths) {
            QTest::newRow(executable) << hasResources << paths;
        };
        row("/Applications/A.app/Contents/MacOS/a", true,
            {"/Applications/A.app/Contents/Resources", "/Applications/A.app/Contents/MacOS/",
             "/Applications/Talvex VPN.app"});
        row("/My  Apps/Some VPN.app/Contents/MacOS/the program", true,
            {"/My  Apps/Some VPN.app/Contents/Resources", "/My  Apps/Some VPN.app/Contents/MacOS/",
             "/My  Apps/Talvex VPN.app"});
        row("/Applications/B.app/Contents/MacOS/b", false,
            {"/Applications/B.app/Contents", "/Applications/B.app/Contents/MacOS/",
             "/Applications/Talvex VPN.app"});
        row("/one/two/three/program", true,
            {"/one/two/Resources", "/one/two/three/", "//Talvex VPN.app"});
        row("/program", false, {"/", "/", "//Talvex VPN.app"});
    }

    void pathsFollowTheExecutable()
    {
        QFETCH(bool, hasResources);
        QFETCH(QStringList, paths);
        const QString executable = QTest::currentDataTag();
        QVERIFY(!hasResources || QDir().mkpath(paths.first()));
        QVERIFY(QDir().mkpath(QFileInfo(executable).path()));
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), executable));
        QProcess copy;
        copy.start(executable, {kTellPaths});
        QVERIFY(copy.waitForFinished());
        QVERIFY(QFile::remove(executable));
        if (hasResources) { // and only then
            QVERIFY(QDir().rmdir(paths.first()));
            paths.prepend("1 default Resources folder doesn't exist"); // 1 is the warning level
        }
        QCOMPARE(QString(copy.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts), paths);
    }

    void resultAndOutputOfACommand_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("output");
        const auto row = [](const char *name, const QString &command, int result,
                            const QString &output = {}) {
            QTest::newRow(name) << command << result << output;
        };
        row("status 1", "/bin/false", kFinished);
        row("ended by a signal", bash("kill -9 $$"), kFinished);
        row("found by PATH", "echo text", kFinished, "text\n");
        row("missing", "/no/such/program a", kFailedToStart);
        row("no program", "/etc/passwd", kFailedToStart);
        row("standard error in its order", bash("echo 1; echo 2 >&2; echo 3"), kFinished,
            "1\n2\n3\n");
        row("UTF-8", "printf \\303\\244\\342\\202\\254", kFinished, "\u00e4\u20ac");
        row("much", bash("printf '%1000000s'"), kFinished, QString(1'000'000, ' '));
        row("without a shell", "printf <%s> $HOME | cat > /tmp/redirected", kFinished,
            "<$HOME><|><cat><>></tmp/redirected>");
    }

    void resultAndOutputOfACommand()
    {
        QFETCH(QString, command);
        QFETCH(int, result);
        QFETCH(QString, output);
        const LogCapture log;
        QCOMPARE(run(command), result);
        QCOMPARE(m_output, "before " + output);
        QCOMPARE(log.lines(), QStringList());
    }

    void commandThatOutlivesTheLimitRunsOnAndEndsByItself()
    {
        m_output.clear();
        const qint64 self = QCoreApplication::applicationPid();
        const double before = measures::processorTime(self);
        QCOMPARE(run(bash("echo $$; " + kWait + "echo >/tmp/mark"), 0), kTimedOut);
        // The limit is passed when one more whole second has gone by.
        QVERIFY2(m_timer.elapsed() >= 1'000 && m_timer.elapsed() < 1'900,
                 qPrintable(QString::number(m_timer.elapsed())));
        const double used = measures::processorTime(self) - before;
        QVERIFY2(used < 100, qPrintable(QString::number(used)));
        const qint64 pid = m_output.trimmed().toLongLong();
        QVERIFY(pid > 1 && standins::isAlive(pid));
        QVERIFY(QFile(kGo).open(QIODevice::WriteOnly));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists("/tmp/mark"), 10'000);
        // And it is waited for, so that no zombie stays.
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(QString("/proc/%1").arg(pid)), 10'000);
    }

    void pieceEndsAtItsZeroByteAndTheNextOneCounts()
    {
        // The command goes on when a timer has seen the first piece: timers run meanwhile.
        QTimer timer;
        connect(&timer, &QTimer::timeout, this,
                [this] { m_output != "before a" || QFile(kGo).open(QIODevice::WriteOnly); });
        timer.start(10);
        QCOMPARE(run(bash("printf 'a\\0b'; " + kWait + "printf c")), kFinished);
        QCOMPARE(m_output, "before ac");
    }

    void daemonIsInstalledWithItsPropertyList()
    {
        QVERIFY(!MacPlatform::isDemonPlistExist());
        QVERIFY(QFile("/Library/LaunchDaemons/TalvexVpnd.plist").open(QIODevice::WriteOnly));
        QVERIFY(MacPlatform::isDemonPlistExist());
    }

    void nameAnywhereInACommandLineIsADaemonThatRuns_data()
    {
        QTest::addColumn<bool>("isDaemon");
        QTest::newRow("/Applications/Talvex VPN.app/Contents/MacOS/talvexvpnd") << true;
        QTest::newRow("talvexvpnd.log") << true;
        QTest::newRow("TalvexVpnd") << false;
    }

    void nameAnywhereInACommandLineIsADaemonThatRuns()
    {
        QFETCH(bool, isDaemon);
        QProcess process;
        process.start("/bin/bash", {"-c", "read line", QTest::currentDataTag()});
        QVERIFY(process.waitForStarted());
        LogCapture log;
        QCOMPARE(MacPlatform::isDemonLoad(), isDaemon);
        process.kill();
        QVERIFY(process.waitForFinished());
        QVERIFY(!MacPlatform::isDemonLoad());
        const QStringList lines = log.lines(QtDebugMsg);
        QCOMPARE(lines.size(), 4);
        const QString ending = QString(" %1\\n\"").arg(QTest::currentDataTag());
        QCOMPARE(lines[0].endsWith(ending), isDaemon);
        QCOMPARE(lines[1], QString("result output  ") + (isDaemon ? "true" : "false"));
        QCOMPARE(lines.mid(2), (QStringList{"\"\"", "result output  false"}));
    }

    void processListThatHangsIsNotWaitedFor()
    {
        const QByteArray searchPath = qgetenv("PATH");
        standins::writeTool("/tmp/bin/ps", "sleep 120; echo talvexvpnd\n");
        qputenv("PATH", "/tmp/bin:" + searchPath);
        m_timer.start();
        const bool isLoaded = MacPlatform::isDemonLoad(100ms);
        const qint64 elapsed = m_timer.elapsed();
        qputenv("PATH", searchPath);
        QVERIFY(!isLoaded);
        QVERIFY2(elapsed >= 100 && elapsed < 5'000, qPrintable(QString::number(elapsed)));
    }
};

int main(int argc, char **argv)
{
    // The folder of the build may be named like the daemon, and the process list would show it.
    std::memset(argv[0], 'x', std::strlen(argv[0]));
    const QCoreApplication application(argc, argv);
    if (application.arguments().value(1) == kTellPaths) {
        tellPaths();
        return 0;
    }
    MacPlatformTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform.moc"
