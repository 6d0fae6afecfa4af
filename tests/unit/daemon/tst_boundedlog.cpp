#include "boundedlog.h"

#include <QtCore/QDebug>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <cstdio>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kMaxBytes = 200'000;
constexpr qint64 kKeptBytes = 140'000;
constexpr int kManyLines = 60'000; ///< have 648,894 bytes

const QByteArray kNotice = "Older lines were removed: the log was full\n";

/// Run by a test, in a process of its own: logs lines with numbers to standard error.
const QString kLog = QStringLiteral("--log");

qint64 logSize()
{
    struct stat status = {};
    return ::fstat(STDERR_FILENO, &status) == 0 ? status.st_size : -1;
}

/// Does what a scenario does to the log file in the midst of the lines.
void disturb(const QString &scenario, const QString &fileName)
{
    if (scenario == QLatin1String("renamed"))
        QFile::rename(fileName, fileName + QStringLiteral(".0"));
    else if (scenario == QLatin1String("removed"))
        QFile::remove(fileName);
    else if (scenario == QLatin1String("emptied"))
        QFile::resize(fileName, 0);
}

/// @return the length of the message that a scenario logs in the midst of the lines, or 0.
int longMessage(const QString &scenario)
{
    if (scenario == QLatin1String("half as long as the log"))
        return 100'000;
    if (scenario == QLatin1String("too long to be kept"))
        return 140'001;
    return scenario == QLatin1String("longer than the log") ? 200'001 : 0;
}

bool startBounding(const QString &scenario)
{
    rlimit own = {};
    ::getrlimit(RLIMIT_NOFILE, &own);
    if (scenario == QLatin1String("unreadable")) {
        const rlimit none{STDERR_FILENO + 1, own.rlim_max}; // so that nothing can be opened
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    const bool isBounded = keepLogWithin({kMaxBytes, kKeptBytes});
    ::setrlimit(RLIMIT_NOFILE, &own);
    return isBounded;
}

/// @return whether what this process starts would have the descriptor that bounding the log takes.
bool isInherited(const QString &fileName)
{
    const int next = ::open(fileName.toLocal8Bit().constData(), O_RDONLY);
    ::close(next);
    return startBounding(QString()) && ::fcntl(next, F_GETFD) != FD_CLOEXEC;
}

/// @return exit status; prints whether the log is bounded, its greatest size after a line, and how
/// often it became smaller.
int logLines(const QString &scenario, int lines, const QString &fileName)
{
    if (scenario == QLatin1String("inherited"))
        return isInherited(fileName) ? 1 : 0;
    const bool isBounded = startBounding(scenario);
    qint64 greatest = 0;
    qint64 last = 0;
    int shrinks = 0;
    for (int number = 1; number <= lines; ++number) {
        const bool isInTheMidst = number == lines / 2;
        if (isInTheMidst)
            disturb(scenario, fileName);
        if (isInTheMidst && longMessage(scenario) > 0)
            qDebug().noquote() << QString(longMessage(scenario), QLatin1Char('x'));
        else if (number % 2 == 0 && scenario == QLatin1String("others write, too"))
            ::dprintf(STDERR_FILENO, "line %d\n", number);
        else
            qDebug("line %d", number);
        const qint64 size = logSize();
        greatest = std::max(greatest, size);
        shrinks += size < last;
        last = size;
    }
    std::printf("%d %lld %d\n", isBounded, static_cast<long long>(greatest), shrinks);
    if (scenario == QLatin1String("removed")) {
        // Only this process sees the file still.
        QFile log(QStringLiteral("/proc/self/fd/2"));
        QFile copy(fileName);
        if (!log.open(QIODevice::ReadOnly) || !copy.open(QIODevice::WriteOnly))
            return 1;
        copy.write(log.readAll());
    }
    return 0;
}

QByteArray linesFromTo(int first, int last, const char *prefix = "")
{
    QByteArray text;
    for (int number = first; number <= last; ++number)
        text += QByteArray(prefix) + "line " + QByteArray::number(number) + '\n';
    return text;
}

} // namespace

/// What becomes of a log without end. Each scenario is a process that logs to a file of its own.
class BoundedLog : public QObject
{
    Q_OBJECT

private:
    struct Outcome
    {
        bool isBounded = false;
        qint64 greatestSize = 0;
        int shrinks = 0;
    };

    /// Runs the process of a scenario, with standard error as it is set.
    Outcome run(const QString &scenario, int lines)
    {
        m_process.start(QCoreApplication::applicationFilePath(),
                        {kLog, scenario, QString::number(lines), m_fileName});
        if (!m_process.waitForFinished() || m_process.exitCode() != 0)
            return {};
        const QList<QByteArray> words = m_process.readAllStandardOutput().simplified().split(' ');
        return {words.value(0) == "1", words.value(1).toLongLong(), words.value(2).toInt()};
    }

    QByteArray content(const QString &suffix = {}) const
    {
        QFile file(m_fileName + suffix);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
    }

    QTemporaryDir m_folder;
    QString m_fileName;
    QProcess m_process;

private Q_SLOTS:
    void init()
    {
        m_fileName = m_folder.filePath(QString::fromLatin1(QTest::currentTestFunction()));
        QFile::remove(m_fileName);
        m_process.setStandardErrorFile(m_fileName);
        m_process.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    }

    void limitIs32MiB()
    {
        QCOMPARE(LogLimits().maxBytes, 33'554'432);
        QCOMPARE(LogLimits().keptBytes, 16'777'216);
    }

    void logThatIsNotFullIsLeftAlone()
    {
        const Outcome outcome = run(QStringLiteral("plain"), 300);
        QVERIFY(outcome.isBounded);
        QCOMPARE(outcome.shrinks, 0);
        QCOMPARE(content(), linesFromTo(1, 300));
    }

    void newestLinesAreKept_data()
    {
        QTest::addColumn<bool>("isAppending"); // as of a shell's ">>", else as of its ">"
        QTest::addColumn<QString>("suffix"); // of the file's name at the end
        QTest::addColumn<qint64>("atLeast"); // of what is kept
        QTest::newRow("plain") << false << "" << kKeptBytes;
        QTest::newRow("appended to") << true << "" << kKeptBytes;
        QTest::newRow("others write, too") << false << "" << kKeptBytes;
        QTest::newRow("renamed") << true << ".0" << kKeptBytes;
#ifdef Q_OS_LINUX // where the test can read a file without a name
        QTest::newRow("removed") << true << "" << kKeptBytes;
#endif
        QTest::newRow("emptied") << false << "" << kKeptBytes;
        QTest::newRow("too long to be kept") << true << "" << kKeptBytes;
        QTest::newRow("unreadable") << true << "" << qint64{0};
    }

    void newestLinesAreKept()
    {
        QFETCH(bool, isAppending);
        QFETCH(QString, suffix);
        QFETCH(qint64, atLeast);
        if (isAppending)
            m_process.setStandardErrorFile(m_fileName, QIODevice::Append);
        const Outcome outcome = run(QString::fromUtf8(QTest::currentDataTag()), kManyLines);
        QVERIFY(outcome.isBounded);
        QVERIFY2(outcome.greatestSize > kKeptBytes && outcome.greatestSize <= kMaxBytes,
                 qPrintable(QString::number(outcome.greatestSize)));
        // 60,000 bytes at least are written before it is full again.
        QVERIFY2(outcome.shrinks > 0 && outcome.shrinks <= 12,
                 qPrintable(QString::number(outcome.shrinks)));

        const QByteArray text = content(suffix);
        QVERIFY2(text.startsWith(kNotice), text.left(200).constData());
        QVERIFY(text.size() >= atLeast && text.size() <= kMaxBytes);
        const QByteArray lines = text.mid(kNotice.size());
        const int first = lines.mid(5, lines.indexOf('\n') - 5).toInt();
        QCOMPARE(lines, linesFromTo(first, kManyLines));
    }

    void longMessageInAShortLogRemovesNothing()
    {
        run(QStringLiteral("half as long as the log"), 4);
        QCOMPARE(content(), "line 1\n" + QByteArray(100'000, 'x') + "\nline 3\nline 4\n");
    }

    void messageLongerThanTheLogDoesNotStay()
    {
        const Outcome outcome = run(QStringLiteral("longer than the log"), kManyLines);
        QVERIFY(outcome.greatestSize <= kMaxBytes);
        QVERIFY(content().endsWith(linesFromTo(59'000, kManyLines)));
    }

    void logThatWasTooLongAtTheStartIsMadeShort()
    {
        QFile old(m_fileName);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("beginning\n" + QByteArray(300'000, 'o') + "\nend\n");
        old.close();
        m_process.setStandardErrorFile(m_fileName, QIODevice::Append);
        run(QStringLiteral("plain"), 1);
        QCOMPARE(content(), kNotice + "end\nline 1\n");
    }

    void linesThatBeginWhereTheKeptOnesDoAreWhole()
    {
        QFile old(m_fileName);
        QVERIFY(old.open(QIODevice::WriteOnly));
        const QByteArray kept = QByteArray(kKeptBytes - 1, 'k') + '\n';
        old.write(QByteArray(kMaxBytes, 'o') + '\n' + kept);
        old.close();
        m_process.setStandardErrorFile(m_fileName, QIODevice::Append);
        run(QStringLiteral("plain"), 1);
        QCOMPARE(content(), kNotice + kept + "line 1\n");
    }

    void descriptorIsNotInherited()
    {
        run(QStringLiteral("inherited"), 0);
        QCOMPARE(m_process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_process.exitCode(), 0);
    }

    void patternOfTheMessagesIsQtsMatter()
    {
        QProcessEnvironment environment = m_process.processEnvironment();
        environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"),
                           QStringLiteral("%{type} %{category}: %{message}"));
        m_process.setProcessEnvironment(environment);
        run(QStringLiteral("plain"), 10);
        QCOMPARE(content(), linesFromTo(1, 10, "debug default: "));
    }

    void pipeGetsEveryLine()
    {
        m_process.setStandardErrorFile({});
        const Outcome outcome = run(QStringLiteral("plain"), kManyLines);
        QVERIFY(!outcome.isBounded);
        QCOMPARE(m_process.readAllStandardError(), linesFromTo(1, kManyLines));
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.value(1) == kLog)
        return logLines(arguments.value(2), arguments.value(3).toInt(), arguments.value(4));
    BoundedLog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_boundedlog.moc"
