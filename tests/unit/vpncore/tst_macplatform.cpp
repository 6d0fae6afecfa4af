#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <climits>
#include <cstdio>

#include <sys/resource.h>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

/// Run by a test: tell the paths that a copy of this program elsewhere finds.
const QString kTellPaths = QStringLiteral("--tell-paths");

/// Some commands wait for this file.
const QString kGo = QStringLiteral("/tmp/go");
const QString kWait = QStringLiteral("until [ -e /tmp/go ]; do sleep 0.02; done; ");

constexpr int kFinished = 0;
constexpr int kFailedToStart = 1;
constexpr int kTimedOut = 2;

void tellMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const char *level = type == QtWarningMsg ? "warning" : "other level";
    std::printf("message: %s, %s, %s\n", level, context.category, qPrintable(text));
}

void tellPaths()
{
    qInstallMessageHandler(tellMessage);
    std::printf("resources: %s\n", qPrintable(MacPlatform::resourcesDir()));
    std::printf("program: %s\n", qPrintable(MacPlatform::programmDir()));
    std::printf("application: %s\n", qPrintable(MacPlatform::applicationPath()));
}

void makeFile(const QString &path)
{
    QVERIFY(QFile(path).open(QIODevice::WriteOnly));
}

/// The processor time that this process has used, in milliseconds.
qint64 processorTime()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval &time) { return time.tv_sec * 1000 + time.tv_usec / 1000; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

/// @return a command line that has bash run @p script, which must not hold a double quote.
QString bash(const QString &script)
{
    return QStringLiteral("/bin/bash -c \"%1\"").arg(script);
}

} // namespace

/// Where the program finds the parts of its bundle, and how it runs commands.
class MacPlatformTest : public QObject
{
    Q_OBJECT

private:
    /// Runs a copy of this program from @p path.
    /// @return what it tells, line by line.
    static QStringList toldFrom(const QString &path)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile::copy(QCoreApplication::applicationFilePath(), path);
        QProcess copy;
        copy.start(path, {kTellPaths});
        copy.waitForFinished();
        QFile::remove(path);
        return QString::fromUtf8(copy.readAllStandardOutput())
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    /// Runs a command and notes output, duration and log.
    int run(const QString &command, int timeout = 10)
    {
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const int result = MacPlatform::runProcess(command, timeout, m_output);
        m_duration = timer.elapsed();
        m_log = log.lines();
        return result;
    }

    QString m_output;
    qint64 m_duration = 0;
    QStringList m_log;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_output.clear();
    }

    // --- Limits ---------------------------------------------------------------------------------

    void limitsAreTheAgreedOnes()
    {
        QVERIFY(vpncore::kDnsScriptLimit == 10s);
        QVERIFY(MacPlatform::kProcessListLimit == 2s);
        const vpncore::MacPlatformLimits limits;
        QVERIFY(limits.tool == 30s);
        QVERIFY(limits.listing == 30s);
        QVERIFY(limits.servicePause == 3500ms);
    }

    // --- Paths ----------------------------------------------------------------------------------

    void pathsFollowTheExecutable_data()
    {
        QTest::addColumn<QString>("executable");
        QTest::addColumn<bool>("hasResources");
        QTest::addColumn<QString>("resources");
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("application");
        const auto row = [](const char *name, const char *executable, bool hasResources,
                            const char *resources, const char *program, const char *application) {
            QTest::newRow(name) << QString::fromUtf8(executable) << hasResources
                                << QString::fromUtf8(resources) << QString::fromUtf8(program)
                                << QString::fromUtf8(application);
        };
        row("a bundle", "/Applications/A.app/Contents/MacOS/a", true,
            "/Applications/A.app/Contents/Resources", "/Applications/A.app/Contents/MacOS/",
            "/Applications/Talvex VPN.app");
        row("a bundle with blanks",
            "/Applications/My  Apps/Some VPN.app/Contents/MacOS/the program", true,
            "/Applications/My  Apps/Some VPN.app/Contents/Resources",
            "/Applications/My  Apps/Some VPN.app/Contents/MacOS/",
            "/Applications/My  Apps/Talvex VPN.app");
        row("a bundle without a resources folder", "/Applications/B.app/Contents/MacOS/b", false,
            "/Applications/B.app/Contents", "/Applications/B.app/Contents/MacOS/",
            "/Applications/Talvex VPN.app");
        row("four levels below the root", "/one/two/three/program", true, "/one/two/Resources",
            "/one/two/three/", "//Talvex VPN.app");
        row("two levels below the root", "/one/program", true, "/Resources", "/one/",
            "//Talvex VPN.app");
        row("in the root", "/program", false, "/", "/", "//Talvex VPN.app");
    }

    void pathsFollowTheExecutable()
    {
        QFETCH(QString, executable);
        QFETCH(bool, hasResources);
        QFETCH(QString, resources);
        QFETCH(QString, program);
        QFETCH(QString, application);
        if (hasResources)
            QVERIFY(QDir().mkpath(resources));
        const QStringList told = toldFrom(executable);
        QVERIFY(!hasResources || QDir().rmdir(resources));
        QStringList expected{QStringLiteral("resources: ") + resources,
                             QStringLiteral("program: ") + program,
                             QStringLiteral("application: ") + application};
        if (hasResources) // and only then
            expected.prepend(
                QStringLiteral("message: warning, default, Resources folder doesn't exist"));
        QCOMPARE(told, expected);
    }

    // --- Commands -------------------------------------------------------------------------------

    void resultSaysWhetherTheCommandCouldBeStarted_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("result");
        QTest::newRow("status 0") << QStringLiteral("/bin/true") << kFinished;
        QTest::newRow("status 1") << QStringLiteral("/bin/false") << kFinished;
        QTest::newRow("ended by a signal") << bash(QStringLiteral("kill -9 $$")) << kFinished;
        QTest::newRow("found by PATH") << QStringLiteral("true") << kFinished;
        QTest::newRow("missing") << QStringLiteral("/no/such/program a") << kFailedToStart;
        QTest::newRow("missing in PATH") << QStringLiteral("no-such-program") << kFailedToStart;
        QTest::newRow("folder") << QStringLiteral("/usr") << kFailedToStart;
        QTest::newRow("no program") << QStringLiteral("/etc/passwd") << kFailedToStart;
    }

    void resultSaysWhetherTheCommandCouldBeStarted()
    {
        QFETCH(QString, command);
        QFETCH(int, result);
        m_output = QStringLiteral("as it was");
        QCOMPARE(run(command), result);
        QCOMPARE(m_output, QStringLiteral("as it was"));
        QCOMPARE(m_log, QStringList());
    }

    void limitIsPassedWhenOneMoreWholeSecondHasGoneBy_data()
    {
        QTest::addColumn<int>("timeout");
        QTest::addColumn<int>("expectedMs");
        QTest::newRow("one") << 1 << 2000;
        QTest::newRow("minus one") << -1 << 0;
        QTest::newRow("minus two") << -2 << 0;
        QTest::newRow("far below zero") << INT_MIN << 0;
    }

    void limitIsPassedWhenOneMoreWholeSecondHasGoneBy()
    {
        QFETCH(int, timeout);
        QFETCH(int, expectedMs);
        QCOMPARE(run(QStringLiteral("sleep 3"), timeout), kTimedOut);
        QVERIFY2(m_duration >= expectedMs && m_duration < expectedMs + 900,
                 qPrintable(QString::number(m_duration)));
    }

    void largestLimitIsNone()
    {
        QCOMPARE(run(bash(QStringLiteral("sleep 0.1; echo end")), INT_MAX), kFinished);
        QCOMPARE(m_output, QStringLiteral("end\n"));
    }

    void commandThatOutlivesTheLimitRunsOnAndEndsByItself()
    {
        const QString mark = QStringLiteral("/tmp/mark");
        const qint64 before = processorTime();
        QCOMPARE(
            run(bash(QStringLiteral("echo $$; ") + kWait + QStringLiteral("echo >/tmp/mark")), 0),
            kTimedOut);
        QVERIFY2(m_duration >= 1'000, qPrintable(QString::number(m_duration)));
        QCOMPARE(m_log, QStringList());
        const qint64 used = processorTime() - before;
        QVERIFY2(used < 100, qPrintable(QString::number(used)));
        const qint64 pid = m_output.trimmed().toLongLong();
        QVERIFY(pid > 1);
        QVERIFY(standins::isAlive(pid));
        makeFile(kGo);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(mark), 10'000);
        // And it is waited for, so that no zombie stays.
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(QStringLiteral("/proc/%1").arg(pid)), 10'000);
    }

    void outputIsAppended()
    {
        m_output = QStringLiteral("before ");
        QCOMPARE(run(QStringLiteral("echo text")), kFinished);
        QCOMPARE(m_output, QStringLiteral("before text\n"));
    }

    void standardErrorIsPartOfTheOutputInOrder()
    {
        QCOMPARE(run(bash(QStringLiteral("echo 1; echo 2 >&2; echo 3; echo 4 >&2"))), kFinished);
        QCOMPARE(m_output, QStringLiteral("1\n2\n3\n4\n"));
    }

    void outputIsUtf8()
    {
        QCOMPARE(run(QStringLiteral("printf \\303\\244\\342\\202\\254")), kFinished);
        QCOMPARE(m_output, QStringLiteral("\u00e4\u20ac"));
    }

    void pieceEndsAtItsZeroByteAndTheNextOneCounts()
    {
        // The command goes on when a timer has seen the first piece: timers run meanwhile.
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [this] {
            if (m_output == QLatin1String("a"))
                makeFile(kGo);
        });
        timer.start(10);
        QCOMPARE(run(bash(QStringLiteral("printf 'a\\0b'; ") + kWait + QStringLiteral("printf c"))),
                 kFinished);
        QCOMPARE(m_output, QStringLiteral("ac"));
    }

    void muchOutputIsComplete()
    {
        QCOMPARE(run(bash(QStringLiteral("yes | head -c 1000000"))), kFinished);
        QCOMPARE(m_output.size(), 1'000'000);
    }

    void noShellIsInvolved()
    {
        QCOMPARE(run(QStringLiteral("printf <%s> $HOME | cat > /tmp/redirected")), kFinished);
        QCOMPARE(m_output, QStringLiteral("<$HOME><|><cat><>></tmp/redirected>"));
        QVERIFY(!QFile::exists(QStringLiteral("/tmp/redirected")));
    }

    void outerCallThatEndedWaitsForTheInnerOne()
    {
        QString inner;
        int innerResult = -1;
        QTimer::singleShot(0, this, [&inner, &innerResult] {
            const QString command = bash(QStringLiteral("sleep 0.3; echo inner"));
            innerResult = MacPlatform::runProcess(command, 5, inner);
        });
        QCOMPARE(run(QStringLiteral("echo outer")), kFinished);
        QCOMPARE(m_output, QStringLiteral("outer\n"));
        QCOMPARE(innerResult, kFinished);
        QCOMPARE(inner, QStringLiteral("inner\n"));
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    if (application.arguments().value(1) == kTellPaths) {
        tellPaths();
        return 0;
    }
    MacPlatformTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform.moc"
