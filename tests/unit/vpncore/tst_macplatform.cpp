#include "logcapture.h"
#include "standins.h"
#include "macplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <climits>
#include <cstdio>

#include <sys/resource.h>

using vpncore::MacPlatform;

namespace {

/// Run by a test: tell the paths that a copy of this program elsewhere finds.
const QString kTellPaths = QStringLiteral("--tell-paths");

constexpr int kFinished = 0;
constexpr int kFailedToStart = 1;
constexpr int kTimedOut = 2;

/// How much later than asked for a wait may end on a busy machine.
constexpr qint64 kLatenessMs = 800;

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

/// Where the program finds the parts of its bundle, and how it runs commands. Every function runs
/// in a private root of its own.
class PlatformPaths : public QObject
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

    /// Runs a command and notes result, output and duration.
    int run(const QString &command, int timeout = 10)
    {
        QElapsedTimer timer;
        timer.start();
        const int result = MacPlatform::runProcess(command, timeout, m_output);
        m_duration = timer.elapsed();
        return result;
    }

    bool lasted(qint64 ms) const { return m_duration >= ms && m_duration < ms + kLatenessMs; }

    QString m_output;
    qint64 m_duration = 0;

private Q_SLOTS:
    void init() { m_output.clear(); }

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
        row("a name beyond ASCII", "/Applications/\u00dc\u20ac.app/Contents/MacOS/\u00fc", true,
            "/Applications/\u00dc\u20ac.app/Contents/Resources",
            "/Applications/\u00dc\u20ac.app/Contents/MacOS/", "/Applications/Talvex VPN.app");
        row("five levels below the root", "/one/two/three/four/program", false, "/one/two/three",
            "/one/two/three/four/", "/one/Talvex VPN.app");
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

    void fileNamedResourcesIsNoFolder()
    {
        const QString contents = QStringLiteral("/Applications/C.app/Contents");
        QVERIFY(QDir().mkpath(contents));
        QFile file(contents + QStringLiteral("/Resources"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        const QStringList told = toldFrom(contents + QStringLiteral("/MacOS/c"));
        QCOMPARE(told.value(0), QStringLiteral("resources: ") + contents);
    }

    void linkNamedResourcesIsNotFollowed()
    {
        const QString contents = QStringLiteral("/Applications/D.app/Contents");
        QVERIFY(QDir().mkpath(contents));
        QVERIFY(QFile::link(QStringLiteral("/usr"), contents + QStringLiteral("/Resources")));
        const QStringList told = toldFrom(contents + QStringLiteral("/MacOS/d"));
        QCOMPARE(told.value(1),
                 QStringLiteral("resources: ") + contents + QStringLiteral("/Resources"));
    }

    // --- The result of a command ----------------------------------------------------------------

    void commandThatEndsIsFinishedWhateverItsStatus_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("status 0") << QStringLiteral("/bin/true");
        QTest::newRow("status 1") << QStringLiteral("/bin/false");
        QTest::newRow("status 127") << bash(QStringLiteral("exit 127"));
        QTest::newRow("ended by a signal") << bash(QStringLiteral("kill -9 $$"));
        QTest::newRow("found by PATH") << QStringLiteral("true");
    }

    void commandThatEndsIsFinishedWhateverItsStatus()
    {
        QFETCH(QString, command);
        QCOMPARE(run(command), kFinished);
        QCOMPARE(m_output, QString());
    }

    void commandThatCannotBeStartedFailsAtOnce_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("missing program") << QStringLiteral("/no/such/program argument");
        QTest::newRow("missing in PATH") << QStringLiteral("no-such-program");
        QTest::newRow("folder") << QStringLiteral("/usr");
        QTest::newRow("file that is no program") << QStringLiteral("/etc/passwd");
        QTest::newRow("empty command") << QString();
        QTest::newRow("blanks only") << QStringLiteral("   ");
        QTest::newRow("empty program") << QStringLiteral("\"\"");
    }

    void commandThatCannotBeStartedFailsAtOnce()
    {
        QFETCH(QString, command);
        m_output = QStringLiteral("as it was");
        QCOMPARE(run(command), kFailedToStart);
        QCOMPARE(m_output, QStringLiteral("as it was"));
        QVERIFY2(lasted(0), qPrintable(QString::number(m_duration)));
    }

    void callReturnsWhenTheCommandEnds()
    {
        QCOMPARE(run(QStringLiteral("sleep 0.5")), kFinished);
        QVERIFY2(lasted(500), qPrintable(QString::number(m_duration)));
    }

    void limitIsPassedWhenOneMoreWholeSecondHasGoneBy_data()
    {
        QTest::addColumn<int>("timeout");
        QTest::addColumn<int>("expectedMs");
        QTest::newRow("two") << 2 << 3000;
        QTest::newRow("one") << 1 << 2000;
        QTest::newRow("zero") << 0 << 1000;
        QTest::newRow("minus one") << -1 << 0;
        QTest::newRow("far below zero") << INT_MIN << 0;
    }

    void limitIsPassedWhenOneMoreWholeSecondHasGoneBy()
    {
        QFETCH(int, timeout);
        QFETCH(int, expectedMs);
        QCOMPARE(run(QStringLiteral("sleep 5"), timeout), kTimedOut);
        QVERIFY2(lasted(expectedMs), qPrintable(QString::number(m_duration)));
    }

    void commandWithinTheLastSecondIsFinished()
    {
        QCOMPARE(run(QStringLiteral("sleep 1.4"), 1), kFinished);
    }

    void largestLimitIsNone()
    {
        QCOMPARE(run(QStringLiteral("sleep 0.2"), INT_MAX), kFinished);
        QVERIFY2(lasted(200), qPrintable(QString::number(m_duration)));
    }

    void outputSoFarIsThereWhenTheLimitPasses()
    {
        QCOMPARE(run(bash(QStringLiteral("echo begun; sleep 3; echo ended")), 0), kTimedOut);
        QCOMPARE(m_output, QStringLiteral("begun\n"));
    }

    void commandThatOutlivesTheLimitRunsOnAndEndsByItself()
    {
        const QString mark = QStringLiteral("/tmp/mark");
        QCOMPARE(run(bash(QStringLiteral("echo $$; sleep 3; echo late; touch %1").arg(mark)), 0),
                 kTimedOut);
        const qint64 pid = m_output.trimmed().toLongLong();
        QVERIFY(pid > 0);
        QVERIFY(standins::isAlive(pid));
        QVERIFY(!QFile::exists(mark));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(mark), 10'000);
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(QStringLiteral("/proc/%1").arg(pid)), 5'000);
        QCOMPARE(m_output, QStringLiteral("%1\n").arg(pid));
    }

    void nothingIsLogged_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("result");
        QTest::newRow("finished") << bash(QStringLiteral("echo text; exit 3")) << kFinished;
        QTest::newRow("failed to start") << QStringLiteral("/no/such/program") << kFailedToStart;
        QTest::newRow("timed out") << QStringLiteral("sleep 1.5") << kTimedOut;
    }

    void nothingIsLogged()
    {
        QFETCH(QString, command);
        QFETCH(int, result);
        const LogCapture log;
        QCOMPARE(run(command, 0), result);
        QTest::qWait(result == kTimedOut ? 1'000 : 0); // and while a command left behind ends
        QCOMPARE(log.lines(), QStringList());
    }

    // --- Output ---------------------------------------------------------------------------------

    void outputIsAppended()
    {
        m_output = QStringLiteral("before ");
        QCOMPARE(run(QStringLiteral("echo text")), kFinished);
        QCOMPARE(m_output, QStringLiteral("before text\n"));
        QCOMPARE(run(QStringLiteral("echo more")), kFinished);
        QCOMPARE(m_output, QStringLiteral("before text\nmore\n"));
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

    void outputEndsAtAZeroByte()
    {
        QCOMPARE(run(QStringLiteral("printf before\\0after")), kFinished);
        QCOMPARE(m_output, QStringLiteral("before"));
    }

    void laterOutputIsThereDespiteAZeroByte()
    {
        QCOMPARE(run(bash(QStringLiteral("printf 'a\\0b'; sleep 0.5; printf c"))), kFinished);
        QCOMPARE(m_output, QStringLiteral("ac"));
    }

    void muchOutputIsComplete()
    {
        QCOMPARE(run(bash(QStringLiteral("yes | head -c 3000000"))), kFinished);
        QCOMPARE(m_output.size(), 3'000'000);
        QVERIFY(m_output.endsWith(QStringLiteral("y\ny\n")));
    }

    void lastWordsOfACommandAreThere()
    {
        for (int i = 0; i < 20; ++i) {
            m_output.clear();
            QCOMPARE(run(QStringLiteral("echo %1").arg(i)), kFinished);
            QCOMPARE(m_output, QStringLiteral("%1\n").arg(i));
        }
    }

    // --- Command lines --------------------------------------------------------------------------

    void commandLineIsSplitByQtsRulesAndNoShell_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *arguments, const char *expected) {
            QTest::newRow(name) << QString::fromLatin1(arguments) << QString::fromLatin1(expected);
        };
        row("words", "a b c", "<a><b><c>");
        row("several blanks", "  a   b  ", "<a><b>");
        row("blanks in double quotes", "\"a  b\" c", "<a  b><c>");
        row("quotes inside a word", "a\"b c\"d", "<ab cd>");
        row("three double quotes", "\"\"\"a\"\"\"", "<\"a\">");
        row("empty argument disappears", "a \"\" b", "<a><b>");
        row("single quotes", "'a b'", "<'a><b'>");
        row("backslash", "\"a\\\\b\" c\\\\d", "<a\\\\b><c\\\\d>");
        row("pipe", "a | cat", "<a><|><cat>");
        row("redirection", "a > /tmp/redirected", "<a><>></tmp/redirected>");
        row("wildcard", "/usr/*", "</usr/*>");
        row("variable", "$HOME ~", "<$HOME><~>");
        row("separators", "a; b & c && d", "<a;><b><&><c><&&><d>");
        row("substitution", "$(id) `id`", "<$(id)><`id`>");
    }

    void commandLineIsSplitByQtsRulesAndNoShell()
    {
        QFETCH(QString, arguments);
        QFETCH(QString, expected);
        QCOMPARE(run(QStringLiteral("printf <%s> ") + arguments), kFinished);
        QCOMPARE(m_output, expected);
        QVERIFY(!QFile::exists(QStringLiteral("/tmp/redirected")));
    }

    void pathOfTheProgramMayHoldBlanks()
    {
        const QString program = QStringLiteral("/tmp/a folder/a program");
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/a folder")));
        QVERIFY(QFile::copy(QStringLiteral("/bin/echo"), program));
        QCOMPARE(run(QStringLiteral("\"%1\" text").arg(program)), kFinished);
        QCOMPARE(m_output, QStringLiteral("text\n"));
    }

    // --- The event loop -------------------------------------------------------------------------

    void timersRunMeanwhile()
    {
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(50);
        QCOMPARE(run(QStringLiteral("sleep 1")), kFinished);
        QVERIFY2(ticks >= 5 && ticks <= 21, qPrintable(QString::number(ticks)));
    }

    void waitingTakesNoProcessorTime()
    {
        const qint64 before = processorTime();
        QCOMPARE(run(QStringLiteral("sleep 2")), kFinished);
        const qint64 used = processorTime() - before;
        QVERIFY2(used < 100, qPrintable(QString::number(used)));
    }

    void waitingForTheLimitTakesNoProcessorTime()
    {
        const qint64 before = processorTime();
        QCOMPARE(run(QStringLiteral("sleep 5"), 1), kTimedOut);
        const qint64 used = processorTime() - before;
        QVERIFY2(used < 100, qPrintable(QString::number(used)));
    }

    void callsMayNest()
    {
        QString inner;
        int innerResult = -1;
        QTimer::singleShot(100, this, [&inner, &innerResult] {
            innerResult =
                MacPlatform::runProcess(bash(QStringLiteral("sleep 0.2; echo inner")), 5, inner);
        });
        QCOMPARE(run(bash(QStringLiteral("echo outer; sleep 1; echo end"))), kFinished);
        QCOMPARE(m_output, QStringLiteral("outer\nend\n"));
        QCOMPARE(innerResult, kFinished);
        QCOMPARE(inner, QStringLiteral("inner\n"));
        QVERIFY2(lasted(1'000), qPrintable(QString::number(m_duration)));
    }

    void outerCallThatEndedWaitsForTheInnerOne()
    {
        QString inner;
        int innerResult = -1;
        QTimer::singleShot(100, this, [&inner, &innerResult] {
            innerResult =
                MacPlatform::runProcess(bash(QStringLiteral("sleep 1; echo inner")), 5, inner);
        });
        QCOMPARE(run(bash(QStringLiteral("sleep 0.3; echo outer"))), kFinished);
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
    PlatformPaths test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform.moc"
