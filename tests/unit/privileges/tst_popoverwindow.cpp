#include "popoverwindow.h"

#include "errorcapture.h"
#include "logcapture.h"
#include "privateroot.h"
#include "standinframeworks.h"
#include "standins.h"

#include <QtTest/QtTest>

#include <type_traits>

using namespace std::chrono_literals;

namespace {

const QString kTool =
    QStringLiteral("/Applications/Talvex VPN.app/Contents/Resources/vpninstallhelper");
const QString kArgument = QStringLiteral("--install now");

const QString kCreate = QStringLiteral("AuthorizationCreate");
const QString kCopyRights = QStringLiteral("AuthorizationCopyRights");
const QString kExecute = QStringLiteral("AuthorizationExecuteWithPrivileges");

const QString kCreateCall =
    QStringLiteral("AuthorizationCreate(no rights, environment null, flags 0)");
const QString kCopyRightsCall =
    QStringLiteral("AuthorizationCopyRights(authorization 1, "
                   "rights [{\"system.privilege.admin\", length 0, value null, flags 0}], "
                   "environment null, flags 19, copy null)");
const QString kExecuteCall =
    QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 1, \"%1\", flags 0, "
                   "arguments [\"%1\", \"%2\"], pipe wanted)");
const QString kFreeCall = QStringLiteral("AuthorizationFree(authorization 1, flags 8)");
const QString kCheckCall =
    QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 0, \"TalvexVPN\", flags 0, "
                   "arguments [], pipe wanted)");

constexpr int kCancelled = -60006;
constexpr int kToolFailed = -60031;
constexpr int kInternal = -60008;

/// What Qt's debug stream makes of a value.
template<typename T>
QString logged(const T &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text;
}

} // namespace

/// Administrator rights: the very file that ships, against stand-ins for what GNUstep lacks of
/// macOS's frameworks.
class PopoverWindowTest : public QObject
{
    Q_OBJECT

private:
    bool runC(const QString &tool, const QString &argument)
    {
        return m_window.runC(tool, argument, 0ms);
    }

    PopoverWindow m_window;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        applescript::reset();
        authorization::reset();
    }

    void cleanup() { QCOMPARE(applescript::liveScripts(), 0); }

    void theClassHasNoDataAndAVirtualDestructor()
    {
        QCOMPARE(sizeof(PopoverWindow), sizeof(void *));
        QVERIFY(std::has_virtual_destructor_v<PopoverWindow>);
    }

    void aToolHasHalfASecond() { QVERIFY(PopoverWindow::kToolStartTime == 500ms); }

    // isAppRun()

    void aListedServiceRuns_data()
    {
        QTest::addColumn<QByteArray>("jobs");
        QTest::addColumn<bool>("runs");
        QTest::addColumn<QString>("result");
        QTest::newRow("listed") << QByteArray("88\t0\tcom.example\n93\t0\ttalvexvpnd\n") << true
                                << QStringLiteral("93\\t0\\ttalvexvpnd");
        QTest::newRow("not listed") << QByteArray("88\t0\tcom.example\n") << false << QString();
    }

    void aListedServiceRuns()
    {
        QFETCH(QByteArray, jobs);
        QFETCH(bool, runs);
        QFETCH(QString, result);
        standins::setState(QStringLiteral("launchctl/jobs"), jobs);
        LogCapture log;
        ErrorCapture errors;
        QCOMPARE(m_window.isAppRun(), runs);
        QCOMPARE(applescript::executions().size(), 1);
        QCOMPARE(applescript::executions()[0].source,
                 QStringLiteral("do shell script \"launchctl list | grep talvexvpnd \" "
                                "with administrator privileges"));
        QVERIFY(!applescript::executions()[0].wantsError);
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Status App  ")
                                  + (runs ? QStringLiteral("true") : QStringLiteral("false")),
                              QStringLiteral("Status App executeResult  \"%1\"").arg(result)}));
        QCOMPARE(errors.lines(), QStringList());
    }

    void theServiceIsRecognisedInAnyLetterCase()
    {
        applescript::setResult(QStringLiteral("93\t0\tTalvexVPNd"));
        QVERIFY(m_window.isAppRun());
    }

    void anEmptyListMeansThatTheServiceDoesNotRun()
    {
        applescript::setResult(QString());
        QVERIFY(!m_window.isAppRun());
    }

    void aCancelledPromptMeansThatTheServiceDoesNotRun()
    {
        standins::setState(QStringLiteral("launchctl/jobs"), "93\t0\ttalvexvpnd\n");
        applescript::setPrompt(applescript::Prompt::Cancelled);
        QVERIFY(!m_window.isAppRun());
    }

    // runAppScript()

    void aCommandRunsThroughTheShell()
    {
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(m_window.runAppScript(QStringLiteral("echo  'x' >/tmp/made"), QString()));
        QVERIFY(QFile::exists(QStringLiteral("/tmp/made")));
        QCOMPARE(applescript::executions().size(), 1);
        QCOMPARE(applescript::executions()[0].source,
                 QStringLiteral("do shell script \"echo  'x' >/tmp/made\" "
                                "with administrator privileges"));
        QVERIFY(applescript::executions()[0].emptyErrorBefore);
        QCOMPARE(log.lines(), QStringList());
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("success!")});
    }

    void theSecondStringIsNotRead()
    {
        QVERIFY(m_window.runAppScript(QStringLiteral("true"), QStringLiteral("false\" \\")));
    }

    void aDoubleQuoteThatTheCallerEscapedIsPassedOn()
    {
        QVERIFY(m_window.runAppScript(QStringLiteral("test \\\"a b\\\" = 'a b'"), QString()));
    }

    void aFailureIsLoggedWithTheScript_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<bool>("isCancelled");
        QTest::newRow("the command fails") << QStringLiteral("exit 3") << false;
        QTest::newRow("a double quote breaks it") << QStringLiteral("echo \"hello\"") << false;
        QTest::newRow("the prompt is cancelled") << QStringLiteral("true") << true;
    }

    void aFailureIsLoggedWithTheScript()
    {
        QFETCH(QString, command);
        QFETCH(bool, isCancelled);
        if (isCancelled)
            applescript::setPrompt(applescript::Prompt::Cancelled);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.runAppScript(command, QString()));
        const QString source =
            QStringLiteral("do shell script \"%1\" with administrator privileges").arg(command);
        QCOMPARE(log.lines(QtDebugMsg),
                 QStringList{QStringLiteral("Do cmd failure:  ") + logged(source)});
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("failure! ") + source});
    }

    // runC()

    void aToolIsStartedBetweenItsRightsAndTheirEnd_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QString>("argument");
        QTest::newRow("with an argument") << kTool << kArgument;
        QTest::newRow("with an empty argument") << kTool << QString();
        QTest::newRow("in the local encoding")
            << QString::fromUtf8("/Anwendungen/Über/helfer") << QString::fromUtf8("тест");
    }

    void aToolIsStartedBetweenItsRightsAndTheirEnd()
    {
        QFETCH(QString, tool);
        QFETCH(QString, argument);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(runC(tool, argument));
        QCOMPARE(authorization::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(tool, argument),
                              kFreeCall}));
        QCOMPARE(authorization::liveAuthorizations(), 0);
        QVERIFY(authorization::isPipeUntouched());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("runC  Path to app ") + logged(tool),
                              QStringLiteral("Current tool:  ") + logged(tool),
                              QStringLiteral("Current args:  ")
                                  + logged(authorization::lastArgumentVector()),
                              QStringLiteral("Current status:  0")}));
        QVERIFY(log.lines()[2].startsWith(QLatin1String("Current args:  0x")));
        QCOMPARE(errors.lines(), QStringList());
    }

    void timersRunForTheGivenTimeAfterTheStart()
    {
        QVector<int> callsSeen;
        QTimer timer;
        connect(&timer, &QTimer::timeout, &timer,
                [&callsSeen] { callsSeen.append(authorization::calls().size()); });
        timer.start(10);
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(m_window.runC(kTool, kArgument, 100ms));
        QVERIFY2(elapsed.elapsed() >= 100 && elapsed.elapsed() < 1'000,
                 qPrintable(QString::number(elapsed.elapsed())));
        QVERIFY(!callsSeen.isEmpty());
        // Three calls: the authorization lives as long as the wait.
        QCOMPARE(callsSeen, QVector<int>(callsSeen.size(), 3));
    }

    void withoutAnAuthorizationNoRightIsAskedFor()
    {
        authorization::setStatus(kCreate, kInternal);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!runC(kTool, kArgument));
        QCOMPARE(authorization::calls(), QStringList{kCreateCall});
        QCOMPARE(log.lines(), QStringList());
        QCOMPARE(errors.lines(),
                 QStringList{QStringLiteral("Error Creating Initial Authorization: -60008")});
    }

    void aCancelledPromptStartsNoToolAndKeepsTheAuthorization()
    {
        authorization::setStatus(kCopyRights, kCancelled);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!runC(kTool, kArgument));
        QCOMPARE(authorization::calls(), (QStringList{kCreateCall, kCopyRightsCall}));
        QCOMPARE(authorization::liveAuthorizations(), 1);
        QCOMPARE(log.lines(QtDebugMsg),
                 QStringList{QStringLiteral("Copy Rights Unsuccessful:  -60006")});
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("Copy Rights Unsuccessful: -60006")});
    }

    void aToolThatCannotBeStartedKeepsTheAuthorization()
    {
        authorization::setStatus(kExecute, kToolFailed);
        LogCapture log;
        ErrorCapture errors;
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!m_window.runC(kTool, kArgument, 10s)); // which nobody waits for then
        QVERIFY(elapsed.elapsed() < 5'000);
        QCOMPARE(authorization::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(kTool, kArgument)}));
        QCOMPARE(authorization::liveAuthorizations(), 1);
        QCOMPARE(log.lines(QtDebugMsg).size(), 4);
        QCOMPARE(log.lines()[3], QStringLiteral("Error:  -60031"));
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("Error: -60031")});
    }

    // chechAdmin()

    void theCheckReportsWhatACallWithoutAuthorizationAnswers_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("errors");
        QTest::newRow("refused") << -60002
                                 << QStringList{QStringLiteral("ChechAdmin......FALSE"),
                                                QStringLiteral("Error: -60002")};
        QTest::newRow("granted") << 0 << QStringList{QStringLiteral("ChechAdmin......TRUE")};
    }

    void theCheckReportsWhatACallWithoutAuthorizationAnswers()
    {
        QFETCH(int, status);
        QFETCH(QStringList, errors);
        authorization::setStatus(kExecute, status);
        LogCapture log;
        ErrorCapture printed;
        QCOMPARE(m_window.chechAdmin(), status == 0);
        QCOMPARE(authorization::calls(), QStringList{kCheckCall});
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
        QCOMPARE(printed.lines(), errors);
    }
};

QTEST_GUILESS_MAIN(PopoverWindowTest)
#include "tst_popoverwindow.moc"
