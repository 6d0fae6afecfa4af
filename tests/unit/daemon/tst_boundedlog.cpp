#include "boundedlog.h"

#include "files.h"
#include "measures.h"

#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr qint64 kMaxBytes = 20'000;
constexpr qint64 kKeptBytes = 2'500;

const QByteArray kNotice = "Older lines were removed: the log was full\n";

} // namespace

/// What becomes of a log without end. Standard error leads to a file meanwhile.
class BoundedLog : public QObject
{
    Q_OBJECT

private:
    /// @param flags as of a shell's ">" or ">>".
    void redirect(const QByteArray &old = {}, int flags = O_APPEND)
    {
        lab::writeFile(m_fileName, old);
        const int log = ::open(qPrintable(m_fileName), O_WRONLY | flags);
        ::dup2(log, STDERR_FILENO);
        ::close(log);
    }

    QByteArray content() const { return lab::contentOf(m_fileName); }

    QScopedPointer<QTemporaryDir> m_folder;
    QString m_fileName;
    QtMessageHandler m_formerHandler = nullptr;
    int m_standardError = -1;

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        m_fileName = m_folder->filePath("log");
        m_standardError = ::dup(STDERR_FILENO);
        m_formerHandler = qInstallMessageHandler(nullptr);
    }

    void cleanup()
    {
        qInstallMessageHandler(m_formerHandler);
        ::dup2(m_standardError, STDERR_FILENO);
        ::close(m_standardError);
    }

    void newestLinesAreKept_data()
    {
        QTest::addColumn<int>("flags");
        QTest::newRow("written to") << 0;
        QTest::newRow("appended to") << O_APPEND;
        QTest::newRow("others write, too") << 0;
        QTest::newRow("renamed") << O_APPEND;
        QTest::newRow("emptied") << 0;
        QTest::newRow("long message") << 0;
        QTest::newRow("unreadable") << O_APPEND;
    }

    void newestLinesAreKept()
    {
        QFETCH(int, flags);
        constexpr int kLines = 6'000; // which have 58,893 bytes
        const QByteArray scenario = QTest::currentDataTag();
        redirect({}, flags);
        QVERIFY(keepLogWithin(kMaxBytes));
        QScopedPointer<measures::FewDescriptors> none;
        qint64 greatest = 0;
        qint64 last = 0;
        int shrinks = 0;
        for (int number = 1; number <= kLines; ++number) {
            const bool isDisturbed = number == 1'800; // the log is nearly full
            if (isDisturbed && scenario == "renamed")
                QVERIFY(QFile::rename(m_fileName, m_fileName + ".0"));
            else if (isDisturbed && scenario == "emptied")
                QVERIFY(QFile::resize(m_fileName, 0));
            else if (isDisturbed && scenario == "unreadable")
                none.reset(new measures::FewDescriptors(0));

            if (isDisturbed && scenario == "long message")
                qDebug().noquote() << QString(5'000, 'x');
            else if (number % 2 == 0 && scenario == "others write, too")
                ::dprintf(STDERR_FILENO, "line %d\n", number);
            else
                qDebug("line %d", number);
            const qint64 size = ::lseek(STDERR_FILENO, 0, SEEK_END);
            greatest = std::max(greatest, size);
            shrinks += size < last;
            last = size;
        }
        none.reset();
        if (scenario == "renamed")
            m_fileName += ".0";
        QVERIFY2(greatest > kMaxBytes / 2 && greatest <= kMaxBytes,
                 qPrintable(QString::number(greatest)));
        QVERIFY2(shrinks >= 1 && shrinks <= 3, qPrintable(QString::number(shrinks)));

        const QByteArray text = content();
        QVERIFY2(text.startsWith(kNotice), text.left(200).constData());
        QVERIFY(text.size() >= kKeptBytes || scenario == "unreadable");
        const QByteArray lines = text.mid(kNotice.size());
        QByteArray expected;
        for (int number = lines.mid(5, lines.indexOf('\n') - 5).toInt(); number <= kLines; ++number)
            expected += "line " + QByteArray::number(number) + '\n';
        QCOMPARE(lines, expected);
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
        redirect(old);
        QVERIFY(keepLogWithin(kMaxBytes));
        qDebug("line 1");
        QCOMPARE(content(), kNotice + kept + "line 1\n");
    }

    void usualLimit() { QCOMPARE(kMaxLogBytes, 33'554'432); }

    void pipeIsLeftAlone()
    {
        int ends[2];
        QCOMPARE(::pipe(ends), 0);
        ::dup2(ends[1], STDERR_FILENO);
        QVERIFY(!keepLogWithin(kMaxBytes));
        const QtMessageHandler handler = qInstallMessageHandler(nullptr);
        QVERIFY(handler == qInstallMessageHandler(nullptr)); // Qt's own
        ::close(ends[0]);
        ::close(ends[1]);
    }
};

QTEST_GUILESS_MAIN(BoundedLog)
#include "tst_boundedlog.moc"
