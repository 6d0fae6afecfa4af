#include "messagehandler.h"

#include "files.h"
#include "logcapture.h"

#include <QtTest/QtTest>

#include <ctime>

/// The lines that the handler writes, for whoever opens a log file.
class MessageHandler : public QObject
{
    Q_OBJECT

private:
    static void log(int type, const QString &text)
    {
        const char *const category = type == QtWarningMsg ? "talvex.test" : "default";
        const QtMessageHandler handler = messageHandler;
        handler(QtMsgType(type), {"file.cpp", 7, "function", category}, text);
    }

    /// @return what another reader sees in the file.
    QString content() const { return lab::contentOf(m_folder->filePath("log")); }

    QScopedPointer<QTemporaryDir> m_folder;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(!m_logFile); // until somebody opens one
        // A time zone in which local time is not UTC.
        qputenv("TZ", "XXT-05:30");
        tzset();
    }

    void init()
    {
        m_folder.reset(new QTemporaryDir);
        m_logFile.reset(new QFile(m_folder->filePath("log")));
        QVERIFY(m_logFile->open(QIODevice::WriteOnly));
    }

    void cleanup() { m_logFile.reset(); }

    void messageIsOneLine_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("line");
        const auto row = [](const char *name, int type, const char *text, const char *line) {
            QTest::newRow(name) << type << text << line;
        };
        row("debug", QtDebugMsg, "a text", "DBG default: a text\n");
        row("info", QtInfoMsg, "", "INF default: \n");
        row("warning", QtWarningMsg, "  \"text\" \\n ", "WRN talvex.test:   \"text\" \\n \n");
        row("critical", QtCriticalMsg, "%1 %s %{message}", "CRT default: %1 %s %{message}\n");
        row("fatal, and the handler returns", QtFatalMsg, "a\r\nb\n", "FTL default: a\r\nb\n\n");
        row("unknown, without a tag", 7, "a text", "default: a text\n");
    }

    void messageIsOneLine()
    {
        QFETCH(int, type);
        QFETCH(QString, text);
        QFETCH(QString, line);
        const QString format = "yyyy-MM-dd hh:mm:ss.zzz";
        const QDateTime before = QDateTime::currentDateTime();
        QVERIFY(before.offsetFromUtc() != 0);
        log(type, text);
        const QDateTime after = QDateTime::currentDateTime();
        QCOMPARE(content().mid(format.size()), line);
        const auto time = QDateTime::fromString(content().left(format.size()), format);
        QVERIFY2(before <= time && time <= after, qPrintable(content()));
        QVERIFY(m_logFile->isOpen());
    }

    void handlerOpensNothing()
    {
        const QString other = m_folder->filePath("other");
        m_logFile.reset(new QFile(other));
        log(QtDebugMsg, "text");
        QVERIFY(!QFile::exists(other));
        m_logFile.reset();
        const LogCapture qt; // which would complain of a stream without a device
        log(QtFatalMsg, "text");
        QCOMPARE(qt.lines(), QStringList());
        QCOMPARE(content(), QString());
    }
};

QTEST_GUILESS_MAIN(MessageHandler)
#include "tst_messagehandler.moc"
