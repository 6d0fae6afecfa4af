#include "bashscript.h"
#include "logcapture.h"

#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>

using namespace std::chrono_literals;
using vpncore::runBashScript;

/// Scripts that block their caller.
class BashScript : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void standardOutputIsReturnedAndLoggedInQuotes()
    {
        const LogCapture log;
        QCOMPARE(runBashScript(QStringLiteral("echo printed; echo error >&2; exit 3"), 10s),
                 QStringLiteral("printed\n"));
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("\"printed\\n\"")});
        QCOMPARE(log.lines().size(), 1);
    }

    void outputIsUtf8UpToAZeroByte()
    {
        QCOMPARE(runBashScript(QStringLiteral("printf 'gr\\303\\274n\\0after'"), 10s),
                 QStringLiteral("gr\u00fcn"));
    }

    void scriptIsBashs()
    {
        QCOMPARE(runBashScript(QStringLiteral("values=(a b); echo \"${values[1]}$#\""), 10s),
                 QStringLiteral("b0\n"));
    }

    void scriptIsEndedAtTheLimitAndWhatItPrintedCounts()
    {
        const LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const QString printed = runBashScript(QStringLiteral("echo $$; exec sleep 60"), 500ms);
        QVERIFY2(timer.elapsed() >= 500, qPrintable(QString::number(timer.elapsed())));
        const int pid = printed.trimmed().toInt();
        QVERIFY(pid > 1);
        QCOMPARE(::kill(pid, 0), -1);
        QCOMPARE(errno, ESRCH);
        QCOMPARE(log.lines(), QStringList{QStringLiteral("\"%1\\n\"").arg(pid)});
    }

    void eventsWaitWhileAScriptRuns()
    {
        bool fired = false;
        QTimer::singleShot(0, this, [&fired] { fired = true; });
        runBashScript(QStringLiteral("sleep 0.1"), 10s);
        QVERIFY(!fired);
        QTRY_VERIFY(fired);
    }
};

QTEST_GUILESS_MAIN(BashScript)
#include "tst_bashscript.moc"
