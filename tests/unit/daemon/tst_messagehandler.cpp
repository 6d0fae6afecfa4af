#include "messagehandler.h"

#include "logcapture.h"

#include <QtTest/QtTest>

#include <ctime>

namespace {

const QString kTimeFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz");

/// Calls the handler as Qt does for a message without a category of its own.
void log(QtMsgType type, const QString &text, const char *category = "default")
{
    messageHandler(type, QMessageLogContext("file.cpp", 7, "function", category), text);
}

} // namespace

Q_DECLARE_METATYPE(QtMsgType)

/// The lines that the handler writes, for whoever opens a log file.
class MessageHandler : public QObject
{
    Q_OBJECT

private:
    /// @return what another reader sees in the file.
    QString content() const
    {
        QFile file(m_fileName);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll())
                                              : QStringLiteral("unreadable");
    }

    /// @return the content of a file of one line, without the time.
    QString withoutTime() const { return content().mid(kTimeFormat.size()); }

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
        m_fileName = m_folder->filePath(QStringLiteral("log"));
        m_logFile.reset(new QFile(m_fileName));
        QVERIFY(m_logFile->open(QIODevice::WriteOnly));
    }

    void cleanup() { m_logFile.reset(); }

    void everyLevelHasItsTag_data()
    {
        QTest::addColumn<QtMsgType>("type");
        QTest::addColumn<QString>("line");
        QTest::newRow("debug") << QtDebugMsg << QStringLiteral("DBG default: a text\n");
        QTest::newRow("info") << QtInfoMsg << QStringLiteral("INF default: a text\n");
        QTest::newRow("warning") << QtWarningMsg << QStringLiteral("WRN default: a text\n");
        QTest::newRow("critical") << QtCriticalMsg << QStringLiteral("CRT default: a text\n");
        QTest::newRow("fatal, and the handler returns")
            << QtFatalMsg << QStringLiteral("FTL default: a text\n");
        QTest::newRow("unknown, without a tag")
            << static_cast<QtMsgType>(7) << QStringLiteral("default: a text\n");
    }

    void everyLevelHasItsTag()
    {
        QFETCH(QtMsgType, type);
        QFETCH(QString, line);
        log(type, QStringLiteral("a text"));
        QCOMPARE(withoutTime(), line);
    }

    void timeIsTheLocalTimeOfTheMessage()
    {
        const QDateTime before = QDateTime::currentDateTime();
        log(QtDebugMsg, QStringLiteral("Local server stopped"));
        const QDateTime after = QDateTime::currentDateTime();
        QVERIFY(before.offsetFromUtc() != 0);
        static const QRegularExpression format(
            QStringLiteral("\\A(\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3})"
                           "DBG default: Local server stopped\\n\\z"));
        const QRegularExpressionMatch match = format.match(content());
        QVERIFY2(match.hasMatch(), qPrintable(content()));
        const auto time = QDateTime::fromString(match.captured(1), kTimeFormat);
        QVERIFY2(before <= time && time <= after, qPrintable(content()));
    }

    void categoryIsThatOfTheMessage()
    {
        log(QtWarningMsg, QStringLiteral("text"), "talvex.test");
        QCOMPARE(withoutTime(), QStringLiteral("WRN talvex.test: text\n"));
    }

    void textIsWrittenAsItIs_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << QString();
        QTest::newRow("blanks and quotes") << QStringLiteral("  \"text\" \\n ");
        QTest::newRow("markers") << QStringLiteral("%1 %s %{message}");
        QTest::newRow("several lines") << QStringLiteral("first\r\nsecond\n");
    }

    void textIsWrittenAsItIs()
    {
        QFETCH(QString, text);
        log(QtInfoMsg, text);
        QCOMPARE(withoutTime(), QStringLiteral("INF default: %1\n").arg(text));
    }

    void fileStaysAsItWasOpened()
    {
        log(QtDebugMsg, QStringLiteral("first"));
        m_logFile.reset(new QFile(m_fileName));
        QVERIFY(m_logFile->open(QIODevice::WriteOnly | QIODevice::Append));
        log(QtDebugMsg, QStringLiteral("second"));
        QCOMPARE(content().count(QLatin1Char('\n')), 2);
        QVERIFY(m_logFile->isOpen());

        const QString other = m_folder->filePath(QStringLiteral("other"));
        m_logFile.reset(new QFile(other));
        log(QtDebugMsg, QStringLiteral("third"));
        QVERIFY(!m_logFile->isOpen());
        QVERIFY(!QFile::exists(other));
    }

    void withoutAFileNothingIsWritten()
    {
        m_logFile.reset();
        const LogCapture qt; // which would complain of a stream without a device
        log(QtFatalMsg, QStringLiteral("text"));
        QCOMPARE(qt.lines(), QStringList());
        QCOMPARE(content(), QString());
    }

    void handlerIsOneThatQtTakes()
    {
        const QtMessageHandler former = qInstallMessageHandler(messageHandler);
        qInfo() << "info" << QStringLiteral("text");
        qInstallMessageHandler(former);
        QCOMPARE(withoutTime(), QStringLiteral("INF default: info \"text\"\n"));
    }
};

QTEST_GUILESS_MAIN(MessageHandler)
#include "tst_messagehandler.moc"
