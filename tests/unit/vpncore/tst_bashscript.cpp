#include "bashscript.h"
#include "logcapture.h"

#include <QtTest/QtTest>

#include <csignal>

using namespace std::chrono_literals;
using vpncore::runBashScript;

/// Scripts that block their caller.
class BashScript : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void standardOutputUpToAZeroByteIsReturnedAndLogged()
    {
        const LogCapture log;
        bool fired = false;
        QTimer::singleShot(0, this, [&fired] { fired = true; });
        // Standard error, bash's own words, UTF-8, and a status.
        QCOMPARE(
            runBashScript(
                "echo error >&2; a=(1 2); printf \"${a[1]}gr\\303\\274n\\n\\0after\"; exit 3", 10s),
            "2gr\u00fcn\n");
        QCOMPARE(log.lines(), QStringList("\"2gr\u00fcn\\n\""));
        QVERIFY(!fired); // events wait meanwhile
        QTRY_VERIFY(fired);
    }

    void scriptIsEndedAtTheLimitAndWhatItPrintedCounts()
    {
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const QString printed = runBashScript("echo $$; exec sleep 60", 500ms);
        QVERIFY2(timer.elapsed() >= 500, qPrintable(QString::number(timer.elapsed())));
        const int pid = printed.trimmed().toInt();
        QVERIFY(pid > 1);
        QCOMPARE(::kill(pid, 0), -1);
        QCOMPARE(log.lines(), QStringList(QString("\"%1\\n\"").arg(pid)));
    }
};

QTEST_GUILESS_MAIN(BashScript)
#include "tst_bashscript.moc"
