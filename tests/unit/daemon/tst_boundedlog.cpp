#include "boundedlog.h"

#include <QtTest/QtTest>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kMaxBytes = 200'000;
constexpr qint64 kKeptBytes = 25'000;
constexpr int kManyLines = 60'000; ///< have 648,894 bytes

const QByteArray kNotice = "Older lines were removed: the log was full\n";

/// Run by a test, in a process of its own: logs lines with numbers to standard error.
const QString kLog = QStringLiteral("--log");

/// Does what a scenario does in the midst of the lines.
void disturb(const QString &scenario, const QString &fileName)
{
    if (scenario == QLatin1String("renamed"))
        QFile::rename(fileName, fileName + QStringLiteral(".0"));
    else if (scenario == QLatin1String("emptied"))
        QFile::resize(fileName, 0);
    else if (scenario == QLatin1String("long message"))
        qDebug().noquote() << QString(50'000, QLatin1Char('x'));
    else if (scenario == QLatin1String("unreadable")) {
        const rlimit none{STDERR_FILENO + 1, RLIM_INFINITY}; // so that nothing can be opened
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
}

/// @return exit status; prints whether the log is bounded, its greatest size after a line, and how
/// often it became smaller.
int logLines(const QString &scenario, int lines, const QString &fileName)
{
    const bool isBounded = keepLogWithin(kMaxBytes);
    qint64 greatest = 0;
    qint64 last = 0;
    int shrinks = 0;
    for (int number = 1; number <= lines; ++number) {
        if (number == lines / 2)
            disturb(scenario, fileName);
        if (number % 2 == 0 && scenario == QLatin1String("others write, too"))
            ::dprintf(STDERR_FILENO, "line %d\n", number);
        else
            qDebug("line %d", number);
        struct stat status = {};
        ::fstat(STDERR_FILENO, &status);
        greatest = std::max(greatest, qint64(status.st_size));
        shrinks += status.st_size < last;
        last = status.st_size;
    }
    std::printf("%d %lld %d\n", isBounded, static_cast<long long>(greatest), shrinks);
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
    /// Runs the process of a scenario, with standard error as it is set.
    void run(const QString &scenario, int lines)
    {
        m_process.start(QCoreApplication::applicationFilePath(),
                        {kLog, scenario, QString::number(lines), m_fileName});
        QVERIFY(m_process.waitForFinished());
        const QList<QByteArray> words = m_process.readAllStandardOutput().simplified().split(' ');
        m_isBounded = words.value(0) == "1";
        m_greatestSize = words.value(1).toLongLong();
        m_shrinks = words.value(2).toInt();
    }

    QByteArray content(const QString &suffix = {}) const
    {
        QFile file(m_fileName + suffix);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
    }

    QTemporaryDir m_folder;
    QString m_fileName;
    QProcess m_process;
    bool m_isBounded = false;
    qint64 m_greatestSize = 0;
    int m_shrinks = 0;

private Q_SLOTS:
    void init()
    {
        m_fileName = m_folder.filePath(QString::fromLatin1(QTest::currentTestFunction()));
        QFile::remove(m_fileName);
        m_process.setStandardErrorFile(m_fileName);
        m_process.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    }

    void newestLinesAreKept_data()
    {
        QTest::addColumn<bool>("isAppending"); // as of a shell's ">>", else as of its ">"
        QTest::addColumn<QString>("suffix"); // of the file's name at the end
        QTest::newRow("plain") << false << "";
        QTest::newRow("appended to") << true << "";
        QTest::newRow("others write, too") << false << "";
        QTest::newRow("renamed") << true << ".0";
        QTest::newRow("emptied") << false << "";
        QTest::newRow("long message") << false << "";
        QTest::newRow("unreadable") << true << "";
    }

    void newestLinesAreKept()
    {
        QFETCH(bool, isAppending);
        QFETCH(QString, suffix);
        const QString scenario = QString::fromUtf8(QTest::currentDataTag());
        if (isAppending)
            m_process.setStandardErrorFile(m_fileName, QIODevice::Append);
        run(scenario, kManyLines);
        QVERIFY(m_isBounded);
        QVERIFY2(m_greatestSize > kMaxBytes * 7 / 8 && m_greatestSize <= kMaxBytes,
                 qPrintable(QString::number(m_greatestSize)));
        QVERIFY2(m_shrinks >= 3 && m_shrinks <= 5, qPrintable(QString::number(m_shrinks)));

        const QByteArray text = content(suffix);
        QVERIFY2(text.startsWith(kNotice), text.left(200).constData());
        QVERIFY(text.size() <= kMaxBytes
                && (text.size() >= kKeptBytes || scenario == QLatin1String("unreadable")));
        const QByteArray lines = text.mid(kNotice.size());
        const int first = lines.mid(5, lines.indexOf('\n') - 5).toInt();
        QCOMPARE(lines, linesFromTo(first, kManyLines));
    }

    void logThatWasTooLongAtTheStartIsMadeShort_data()
    {
        const QByteArray whole = QByteArray(kKeptBytes - 1, 'k') + '\n';
        QTest::addColumn<QByteArray>("old");
        QTest::addColumn<QByteArray>("kept");
        QTest::newRow("half a line goes") << "beginning\n" + QByteArray(kMaxBytes, 'o') + "\nend\n"
                                          << QByteArray("end\n");
        QTest::newRow("a line that begins what is kept")
            << QByteArray(kMaxBytes, 'o') + '\n' + whole << whole;
    }

    void logThatWasTooLongAtTheStartIsMadeShort()
    {
        QFETCH(QByteArray, old);
        QFETCH(QByteArray, kept);
        QFile file(m_fileName);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(old) == old.size());
        file.close();
        m_process.setStandardErrorFile(m_fileName, QIODevice::Append);
        run(QString(), 1);
        QCOMPARE(content(), kNotice + kept + "line 1\n");
    }

    void logThatIsNotFullHasQtsLines()
    {
        QCOMPARE(kMaxLogBytes, 33'554'432);
        QProcessEnvironment environment = m_process.processEnvironment();
        environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"),
                           QStringLiteral("%{type} %{category}: %{message}"));
        m_process.setProcessEnvironment(environment);
        run(QString(), 300);
        QCOMPARE(content(), linesFromTo(1, 300, "debug default: "));
    }

    void pipeGetsEveryLine()
    {
        m_process.setStandardErrorFile({});
        run(QString(), kManyLines);
        QVERIFY(!m_isBounded);
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
