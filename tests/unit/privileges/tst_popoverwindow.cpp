#include "popoverwindow.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standinframeworks.h"

#include <QtTest/QtTest>

#include <type_traits>

using namespace std::chrono_literals;

namespace {

const QString kTool = "/Applications/Talvex VPN.app/Contents/Resources/vpninstallhelper";
const QString kArgument = "--install now";

const QString kCreateCall = "AuthorizationCreate(rights [], environment null, flags 0)";
const QString kCopyRightsCall =
    "AuthorizationCopyRights(authorization 1, rights [{\"system.privilege.admin\", length 0, "
    "value null, flags 0}], environment null, flags 19, copy null)";
const QString kExecuteCall = "AuthorizationExecuteWithPrivileges(authorization 1, \"%1\", flags 0, "
                             "arguments [\"%1\", \"%2\"], pipe given)";
const QString kFreeCall = "AuthorizationFree(authorization 1, flags 8)";

/// What Qt's debug stream makes of a text.
QString logged(const QString &text)
{
    QString line;
    QDebug(&line).nospace() << text;
    return line;
}

} // namespace

/// Administrator rights: the very file that ships, against stand-ins for what GNUstep lacks of
/// macOS's frameworks.
class PopoverWindowTest : public QObject
{
    Q_OBJECT

private:
    PopoverWindow m_window;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        frameworks::reset();
    }

    void cleanup() { QCOMPARE(frameworks::liveScripts(), 0); }

    void classHasNoDataAndAVirtualDestructor()
    {
        QCOMPARE(sizeof(PopoverWindow), sizeof(void *));
        QVERIFY(std::has_virtual_destructor_v<PopoverWindow>);
        QVERIFY(PopoverWindow::kToolStartTime == 500ms);
    }

    void listedServiceRuns_data()
    {
        QTest::addColumn<QString>("result");
        QTest::addColumn<bool>("runs");
        QTest::newRow("listed") << "93\t0\ttalvexvpnd" << true;
        QTest::newRow("in any letter case") << "93\t0\tTalvexVPNd" << true;
        QTest::newRow("not listed") << "" << false;
        QTest::newRow("the prompt is cancelled") << QString() << false;
    }

    void listedServiceRuns()
    {
        QFETCH(QString, result);
        QFETCH(bool, runs);
        frameworks::setScriptResult(result);
        LogCapture log;
        QCOMPARE(m_window.isAppRun(), runs);
        QCOMPARE(frameworks::calls(),
                 QStringList("NSAppleScript(do shell script \"launchctl list | grep talvexvpnd \" "
                             "with administrator privileges, error null)"));
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{runs ? "Status App  true" : "Status App  false",
                              "Status App executeResult  " + logged(result)}));
    }

    void commandIsPartOfTheScriptAsItStands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("isCancelled");
        QTest::addColumn<bool>("succeeds");
        QTest::newRow("succeeds") << "echo  'x' >/tmp/x" << false << true;
        QTest::newRow("escaped quotes") << "test \\\"a b\\\" = x" << false << true;
        QTest::newRow("a double quote breaks it") << "echo \"hello\"" << false << false;
        QTest::newRow("the prompt is cancelled") << "true" << true << false;
    }

    void commandIsPartOfTheScriptAsItStands()
    {
        QFETCH(QString, command);
        QFETCH(bool, isCancelled);
        QFETCH(bool, succeeds);
        if (isCancelled)
            frameworks::setScriptResult(QString());
        LogCapture log;
        QCOMPARE(m_window.runAppScript(command, "not read\" \\"), succeeds);
        const QString source = "do shell script \"" + command + "\" with administrator privileges";
        QCOMPARE(frameworks::calls(),
                 (QStringList{"NSAppleScript(" + source + ", error given)",
                              succeeds ? "NSLog(success!)" : "NSLog(failure! " + source + ')'}));
        const QStringList failure("Do cmd failure:  " + logged(source));
        QCOMPARE(log.lines(QtDebugMsg), succeeds ? QStringList() : failure);
    }

    void toolIsStartedBetweenItsRightsAndTheirEnd_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QString>("argument");
        QTest::newRow("with an argument") << kTool << kArgument;
        QTest::newRow("with an empty argument") << kTool << QString();
        QTest::newRow("in the local encoding") << QString("/Anwendungen/Über/helfer") << "тест";
    }

    void toolIsStartedBetweenItsRightsAndTheirEnd()
    {
        QFETCH(QString, tool);
        QFETCH(QString, argument);
        LogCapture log;
        QVERIFY(m_window.runC(tool, argument, 0ms));
        QCOMPARE(frameworks::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(tool, argument),
                              kFreeCall}));
        QCOMPARE(frameworks::liveAuthorizations(), 0);
        QVERIFY(frameworks::isPipeUntouched());
        QStringList lines = log.lines(QtDebugMsg);
        QVERIFY(lines.takeAt(2).startsWith("Current args:  0x")); // and not the texts
        QCOMPARE(lines,
                 (QStringList{"runC  Path to app " + logged(tool), "Current tool:  " + logged(tool),
                              "Current status:  0"}));
    }

    void timersRunForTheGivenTimeAfterTheStart()
    {
        int callsSeen = 0;
        QTimer::singleShot(50, this, [&callsSeen] { callsSeen = frameworks::calls().size(); });
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(m_window.runC(kTool, kArgument, 100ms));
        QVERIFY(elapsed.elapsed() >= 95 && elapsed.elapsed() < 5'000);
        QCOMPARE(callsSeen, 3); // the authorization lives as long as the wait
    }

    void failureEndsItAndKeepsTheAuthorization_data()
    {
        QTest::addColumn<QString>("function");
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("lastLine");
        QTest::newRow("no authorization")
            << "AuthorizationCreate" << -60008
            << QStringList{kCreateCall, "NSLog(Error Creating Initial Authorization: -60008)"}
            << QString();
        QTest::newRow("the prompt is cancelled")
            << "AuthorizationCopyRights" << -60006
            << QStringList{kCreateCall, kCopyRightsCall, "NSLog(Copy Rights Unsuccessful: -60006)"}
            << "Copy Rights Unsuccessful:  -60006";
        QTest::newRow("the tool cannot be started")
            << "AuthorizationExecuteWithPrivileges" << -60031
            << QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(kTool, kArgument),
                           "NSLog(Error: -60031)"}
            << "Error:  -60031";
    }

    void failureEndsItAndKeepsTheAuthorization()
    {
        QFETCH(QString, function);
        QFETCH(int, status);
        QFETCH(QStringList, calls);
        QFETCH(QString, lastLine);
        frameworks::setStatus(function, status);
        LogCapture log;
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!m_window.runC(kTool, kArgument, 10s)); // which nobody waits for then
        QVERIFY(elapsed.elapsed() < 5'000);
        QCOMPARE(frameworks::calls(), calls);
        QCOMPARE(frameworks::liveAuthorizations(), calls.contains(kCopyRightsCall) ? 1 : 0);
        QCOMPARE(log.lines(QtDebugMsg).value(calls.size() == 4 ? 3 : 0), lastLine);
    }

    void checkReportsWhatACallWithoutAuthorizationAnswers_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("refused") << -60002
                                 << QStringList{"NSLog(ChechAdmin......FALSE)",
                                                "NSLog(Error: -60002)"};
        QTest::newRow("granted") << 0 << QStringList{"NSLog(ChechAdmin......TRUE)"};
    }

    void checkReportsWhatACallWithoutAuthorizationAnswers()
    {
        QFETCH(int, status);
        QFETCH(QStringList, messages);
        frameworks::setStatus("AuthorizationExecuteWithPrivileges", status);
        LogCapture log;
        QCOMPARE(m_window.chechAdmin(), status == 0);
        QCOMPARE(frameworks::calls(),
                 QStringList("AuthorizationExecuteWithPrivileges(authorization 0, \"TalvexVPN\", "
                             "flags 0, arguments [], pipe given)")
                     + messages);
        QCOMPARE(log.lines(QtDebugMsg), QStringList("PopoverWindow::chechAdmin()"));
    }
};

QTEST_GUILESS_MAIN(PopoverWindowTest)
#include "tst_popoverwindow.moc"
