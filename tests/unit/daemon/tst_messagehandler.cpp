#include "messagehandler.h"

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QLoggingCategory>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <cstdio>
#include <ctime>

#include <sys/resource.h>

namespace {

/// Run by a test, in a process of its own: log with the handler installed, into the file named by
/// the next argument or, without one, into none.
const QString kLogEveryLevel = QStringLiteral("--log-every-level");
const QString kLogFatal = QStringLiteral("--log-fatal");

void installHandler(const QString &fileName)
{
    if (!fileName.isEmpty()) {
        m_logFile.reset(new QFile(fileName));
        m_logFile->open(QIODevice::WriteOnly);
    }
    qInstallMessageHandler(messageHandler);
}

void logEveryLevel()
{
    qDebug() << "debug" << QStringLiteral("text");
    qInfo("info");
    qWarning("warning");
    qCritical("critical");
}

/// Calls the handler as Qt does for a message without a category of its own.
void log(QtMsgType type, const QString &text, const char *category = "default")
{
    messageHandler(type, QMessageLogContext("file.cpp", 7, "function", category), text);
}

const QString kTimeFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz");
const int kTimeLength = kTimeFormat.size();

} // namespace

Q_DECLARE_METATYPE(QtMsgType)

/// The lines that the handler writes, for whoever opens a log file.
class MessageHandler : public QObject
{
    Q_OBJECT

private:
    /// @return what another reader sees in the file.
    QByteArray content() const
    {
        QFile file(m_fileName);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
    }

    /// @return the content without the times, which stand at the start of each line.
    QByteArray withoutTimes() const
    {
        QByteArray text;
        for (const QByteArray &line : content().split('\n')) {
            if (!line.isEmpty())
                text += line.mid(kTimeLength) + '\n';
        }
        return text;
    }

    QScopedPointer<QTemporaryDir> m_folder;
    QString m_fileName;

private Q_SLOTS:
    void initTestCase()
    {
        // A time zone in which local time is not UTC.
        qputenv("TZ", "XXT-05:30");
        tzset();
    }

    void init()
    {
        m_folder.reset(new QTemporaryDir);
        QVERIFY(m_folder->isValid());
        m_fileName = m_folder->filePath(QStringLiteral("log"));
        m_logFile.reset(new QFile(m_fileName));
        QVERIFY(m_logFile->open(QIODevice::WriteOnly));
    }

    void cleanup()
    {
        m_logFile.reset();
        m_folder.reset();
    }

    void everyLevelHasItsTag_data()
    {
        QTest::addColumn<QtMsgType>("type");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("debug") << QtDebugMsg << QByteArray("DBG default: text\n");
        QTest::newRow("info") << QtInfoMsg << QByteArray("INF default: text\n");
        QTest::newRow("warning") << QtWarningMsg << QByteArray("WRN default: text\n");
        QTest::newRow("critical") << QtCriticalMsg << QByteArray("CRT default: text\n");
        QTest::newRow("fatal") << QtFatalMsg << QByteArray("FTL default: text\n");
        QTest::newRow("unknown, without a tag")
            << static_cast<QtMsgType>(7) << QByteArray("default: text\n");
    }

    void everyLevelHasItsTag()
    {
        QFETCH(QtMsgType, type);
        QFETCH(QByteArray, line);
        log(type, QStringLiteral("text"));
        QCOMPARE(withoutTimes(), line);
    }

    void lineHasItsFormat()
    {
        log(QtDebugMsg, QStringLiteral("Local server stopped"));
        const QRegularExpression format(
            QStringLiteral("\\A\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}"
                           "DBG default: Local server stopped\\n\\z"));
        QVERIFY2(format.match(QString::fromUtf8(content())).hasMatch(), content().constData());
    }

    void timeIsTheLocalTimeOfTheMessage()
    {
        const QDateTime before = QDateTime::currentDateTime();
        log(QtDebugMsg, QStringLiteral("text"));
        const QDateTime after = QDateTime::currentDateTime();
        QVERIFY(before.offsetFromUtc() != 0);
        const auto time =
            QDateTime::fromString(QString::fromUtf8(content().left(kTimeLength)), kTimeFormat);
        QVERIFY(time.isValid());
        QVERIFY2(before <= time && time <= after, content().constData());
    }

    void categoryIsThatOfTheMessage()
    {
        log(QtWarningMsg, QStringLiteral("text"), "talvex.test");
        QCOMPARE(withoutTimes(), QByteArray("WRN talvex.test: text\n"));
    }

    void messageWithoutACategoryIsWritten()
    {
        messageHandler(QtInfoMsg, QMessageLogContext(), QStringLiteral("text"));
        QCOMPARE(withoutTimes(), QByteArray("INF : text\n"));
    }

    void textIsWrittenAsItIs_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << QString();
        QTest::newRow("blanks at both ends") << QStringLiteral("  text  ");
        QTest::newRow("markers") << QStringLiteral("%1 %s %{message}");
        QTest::newRow("quotes") << QStringLiteral("\"text\" \\n");
        QTest::newRow("long") << QString(100'000, QLatin1Char('x'));
    }

    void textIsWrittenAsItIs()
    {
        QFETCH(QString, text);
        log(QtInfoMsg, text);
        QCOMPARE(withoutTimes(), "INF default: " + text.toUtf8() + '\n');
    }

    void textOfSeveralLinesIsWrittenAsItIs()
    {
        log(QtInfoMsg, QStringLiteral("first\r\nsecond\n"));
        QCOMPARE(content().mid(kTimeLength), QByteArray("INF default: first\r\nsecond\n\n"));
    }

    void everyLineIsFlushedAtOnce()
    {
        log(QtDebugMsg, QStringLiteral("first"));
        QCOMPARE(withoutTimes(), QByteArray("DBG default: first\n"));
        log(QtInfoMsg, QStringLiteral("second"));
        QCOMPARE(withoutTimes(), QByteArray("DBG default: first\nINF default: second\n"));
    }

    void fileIsUsedInTheModeItWasOpenedIn()
    {
        log(QtDebugMsg, QStringLiteral("first"));
        m_logFile.reset(new QFile(m_fileName));
        QVERIFY(m_logFile->open(QIODevice::WriteOnly | QIODevice::Append));
        log(QtDebugMsg, QStringLiteral("second"));
        QCOMPARE(withoutTimes(), QByteArray("DBG default: first\nDBG default: second\n"));
        QVERIFY(m_logFile->isOpen());
    }

    void fileThatIsNotOpenIsNotOpened()
    {
        const QString other = m_folder->filePath(QStringLiteral("other"));
        m_logFile.reset(new QFile(other));
        log(QtDebugMsg, QStringLiteral("text"));
        QVERIFY(!m_logFile->isOpen());
        QVERIFY(!QFile::exists(other));
    }

    void withoutAFileNothingIsWritten()
    {
        m_logFile.reset();
        log(QtFatalMsg, QStringLiteral("text"));
        QCOMPARE(content(), QByteArray());
    }

    void fatalMessageReturns()
    {
        // The handler does not end the process; Qt does that after it.
        log(QtFatalMsg, QStringLiteral("text"));
        log(QtDebugMsg, QStringLiteral("afterwards"));
        QCOMPARE(withoutTimes(), QByteArray("FTL default: text\nDBG default: afterwards\n"));
    }

    void installedHandlerWritesWhatQtLogs()
    {
        const QString fileName = m_folder->filePath(QStringLiteral("child"));
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(), {kLogEveryLevel, fileName});
        QVERIFY(child.waitForFinished());
        QCOMPARE(child.exitCode(), 0);
        QCOMPARE(child.readAllStandardError(), QByteArray());
        m_fileName = fileName;
        QCOMPARE(withoutTimes(),
                 QByteArray("DBG default: debug \"text\"\n"
                            "INF default: info\n"
                            "WRN default: warning\n"
                            "CRT default: critical\n"));
    }

    void installedHandlerWithoutAFileIsSilent()
    {
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(), {kLogEveryLevel});
        QVERIFY(child.waitForFinished());
        QCOMPARE(child.exitStatus(), QProcess::NormalExit);
        QCOMPARE(child.exitCode(), 0);
        QCOMPARE(child.readAllStandardError(), QByteArray());
        QCOMPARE(child.readAllStandardOutput(), QByteArray("end\n"));
    }

    void fatalMessageIsWrittenBeforeQtEndsTheProcess()
    {
        const QString fileName = m_folder->filePath(QStringLiteral("child"));
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(), {kLogFatal, fileName});
        QVERIFY(child.waitForFinished());
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        m_fileName = fileName;
        QCOMPARE(withoutTimes(), QByteArray("FTL default: the end\n"));
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QString mode = application.arguments().value(1);
    if (mode == kLogEveryLevel || mode == kLogFatal) {
        installHandler(application.arguments().value(2));
        if (mode == kLogFatal) {
            const rlimit noCoreFile{0, 0};
            setrlimit(RLIMIT_CORE, &noCoreFile);
            qFatal("the end");
        }
        logEveryLevel();
        std::puts("end");
        return 0;
    }
    MessageHandler test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_messagehandler.moc"
