#include "popoverwindow.h"
#include "errorcapture.h"
#include "standinframeworks.h"
#include "logcapture.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <type_traits>

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
    PopoverWindow m_window;

private Q_SLOTS:
    void init()
    {
        standins::forgetState();
        applescript::reset();
        authorization::reset();
    }

    void cleanup() { QCOMPARE(applescript::liveScripts(), 0); }

    void theClassHasNoDataAndAVirtualDestructor()
    {
        QCOMPARE(sizeof(PopoverWindow), sizeof(void *));
        QVERIFY(std::has_virtual_destructor_v<PopoverWindow>);
    }

    // isAppRun()

    void aListedServiceRuns()
    {
        standins::setState(QStringLiteral("launchctl/jobs"),
                           "88\t0\tcom.example.agent\n"
                           "93\t0\ttalvexvpnd\n");
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(m_window.isAppRun());
        QCOMPARE(
            log.lines(QtDebugMsg),
            (QStringList{QStringLiteral("Status App  true"),
                         QStringLiteral("Status App executeResult  \"93\\t0\\ttalvexvpnd\"")}));
        QCOMPARE(errors.lines(), QStringList());
    }

    void aServiceThatIsNotListedDoesNotRun()
    {
        LogCapture log;
        QVERIFY(!m_window.isAppRun());
        QCOMPARE(standins::calls(QStringLiteral("launchctl")),
                 QVector<QStringList>{{QStringLiteral("list")}});
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Status App  false"),
                              QStringLiteral("Status App executeResult  \"\"")}));
    }

    void theServiceIsRecognisedInAnyLetterCase()
    {
        applescript::setResult(QStringLiteral("93\t0\tTalvexVPNd"));
        LogCapture log;
        QVERIFY(m_window.isAppRun());
        QCOMPARE(log.lines().first(), QStringLiteral("Status App  true"));
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
        LogCapture log;
        QVERIFY(!m_window.isAppRun());
        QCOMPARE(standins::calls(QStringLiteral("launchctl")), QVector<QStringList>());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Status App  false"),
                              QStringLiteral("Status App executeResult  \"\"")}));
    }

    void theServiceIsAskedForByOneScriptWithoutErrorDictionary()
    {
        m_window.isAppRun();
        QCOMPARE(applescript::executions().size(), 1);
        QCOMPARE(applescript::executions()[0].source,
                 QStringLiteral("do shell script \"launchctl list | grep talvexvpnd \" "
                                "with administrator privileges"));
        QVERIFY(!applescript::executions()[0].wantsError);
    }

    // runAppScript()

    void aCommandRunsThroughTheShell()
    {
        QTemporaryDir folder;
        const QString file = folder.filePath(QStringLiteral("made"));
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(m_window.runAppScript(QStringLiteral("printf x | tee '%1'").arg(file), QString()));
        QVERIFY(QFile::exists(file));
        QCOMPARE(log.lines(), QStringList());
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("success!")});
    }

    void aCommandWithoutOutputSucceeds()
    {
        QVERIFY(m_window.runAppScript(QStringLiteral("true"), QString()));
    }

    void theCommandStandsInTheScriptAsItIs()
    {
        m_window.runAppScript(QStringLiteral("echo  'a\\\\b' "), QString());
        QCOMPARE(applescript::executions().size(), 1);
        QCOMPARE(
            applescript::executions()[0].source,
            QStringLiteral("do shell script \"echo  'a\\\\b' \" with administrator privileges"));
    }

    void theErrorOfACommandHasAnEmptyDictionaryToGoTo()
    {
        m_window.runAppScript(QStringLiteral("true"), QString());
        QCOMPARE(applescript::executions().size(), 1);
        QVERIFY(applescript::executions()[0].emptyErrorBefore);
    }

    void theSecondStringIsNotRead()
    {
        m_window.runAppScript(QStringLiteral("true"), QStringLiteral("false\" \\"));
        m_window.runAppScript(QStringLiteral("true"), QString());
        QCOMPARE(applescript::executions().size(), 2);
        QCOMPARE(applescript::executions()[0].source, applescript::executions()[1].source);
    }

    void aCommandWithADoubleQuoteBreaksTheScript()
    {
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.runAppScript(QStringLiteral("echo \"hello\""), QString()));
        const QString source =
            QStringLiteral("do shell script \"echo \"hello\"\" with administrator privileges");
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Do cmd failure:  ") + logged(source)});
        QCOMPARE(log.lines(QtDebugMsg).size(), 1);
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("failure! ") + source});
    }

    void aDoubleQuoteThatTheCallerEscapedIsPassedOn()
    {
        QVERIFY(m_window.runAppScript(QStringLiteral("test \\\"a b\\\" = 'a b'"), QString()));
    }

    void aFailingCommandFails()
    {
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.runAppScript(QStringLiteral("exit 3"), QString()));
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("Do cmd failure:  \"do shell script \\\"exit 3\\\" "
                                            "with administrator privileges\"")});
        QCOMPARE(errors.lines(),
                 QStringList{QStringLiteral("failure! do shell script \"exit 3\" "
                                            "with administrator privileges")});
    }

    void aCancelledPromptFailsTheCommand()
    {
        QTemporaryDir folder;
        const QString file = folder.filePath(QStringLiteral("made"));
        applescript::setPrompt(applescript::Prompt::Cancelled);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.runAppScript(QStringLiteral("touch '%1'").arg(file), QString()));
        QVERIFY(!QFile::exists(file));
        QCOMPARE(log.lines().size(), 1);
        QVERIFY(log.lines()[0].startsWith(QLatin1String("Do cmd failure:  \"do shell script ")));
        QCOMPARE(errors.lines().size(), 1);
        QVERIFY(errors.lines()[0].startsWith(QLatin1String("failure! do shell script \"touch ")));
    }

    // runC()

    void aToolIsStartedBetweenItsRightsAndTheirEnd()
    {
        QVERIFY(m_window.runC(kTool, kArgument));
        QCOMPARE(authorization::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(kTool, kArgument),
                              kFreeCall}));
        QCOMPARE(authorization::liveAuthorizations(), 0);
    }

    void anEmptyArgumentIsPassedOn()
    {
        QVERIFY(m_window.runC(kTool, QString()));
        QCOMPARE(authorization::calls().value(2), kExecuteCall.arg(kTool, QString()));
    }

    void pathAndArgumentArePassedInTheLocalEncoding()
    {
        const QString tool = QString::fromUtf8("/Anwendungen/Über/helfer");
        const QString argument = QString::fromUtf8("тест");
        QVERIFY(m_window.runC(tool, argument));
        QCOMPARE(authorization::calls().value(2), kExecuteCall.arg(tool, argument));
    }

    void aStartedToolIsLogged()
    {
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(m_window.runC(kTool, kArgument));
        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("runC  Path to app ") + logged(kTool),
                              QStringLiteral("Current tool:  ") + logged(kTool),
                              QStringLiteral("Current args:  ")
                                  + logged(authorization::lastArgumentVector()),
                              QStringLiteral("Current status:  0")}));
        QCOMPARE(log.lines(QtDebugMsg).size(), 4);
        QCOMPARE(errors.lines(), QStringList());
    }

    void theArgumentVectorIsLoggedAsAnAddress()
    {
        LogCapture log;
        QVERIFY(m_window.runC(kTool, kArgument));
        static const QRegularExpression address(
            QStringLiteral("^Current args:  0x[0-9a-f]{4,16}$"));
        QVERIFY2(address.match(log.lines().value(2)).hasMatch(), qPrintable(log.lines().value(2)));
    }

    void timersRunInTheHalfSecondAfterTheStart()
    {
        QVector<int> callsSeen;
        QTimer timer;
        connect(&timer, &QTimer::timeout, &timer,
                [&callsSeen] { callsSeen.append(authorization::calls().size()); });
        timer.start(50);
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(m_window.runC(kTool, kArgument));
        QVERIFY2(elapsed.elapsed() >= 500 && elapsed.elapsed() < 1'500,
                 qPrintable(QString::number(elapsed.elapsed())));
        QVERIFY2(callsSeen.size() >= 5, qPrintable(QString::number(callsSeen.size())));
        // Three calls: the authorization lives as long as the wait.
        QCOMPARE(callsSeen, QVector<int>(callsSeen.size(), 3));
    }

    void thePipeToTheToolIsNeitherReadNorClosed()
    {
        QVERIFY(m_window.runC(kTool, kArgument));
        QVERIFY(authorization::isPipeUntouched());
    }

    void withoutAnAuthorizationNoRightIsAskedFor()
    {
        authorization::setStatus(kCreate, kInternal);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.runC(kTool, kArgument));
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
        QVERIFY(!m_window.runC(kTool, kArgument));
        QCOMPARE(authorization::calls(), (QStringList{kCreateCall, kCopyRightsCall}));
        QCOMPARE(authorization::liveAuthorizations(), 1);
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Copy Rights Unsuccessful:  -60006")});
        QCOMPARE(log.lines(QtDebugMsg).size(), 1);
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("Copy Rights Unsuccessful: -60006")});
    }

    void aToolThatCannotBeStartedKeepsTheAuthorization()
    {
        authorization::setStatus(kExecute, kToolFailed);
        LogCapture log;
        ErrorCapture errors;
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!m_window.runC(kTool, kArgument));
        QVERIFY(elapsed.elapsed() < 500);
        QCOMPARE(authorization::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(kTool, kArgument)}));
        QCOMPARE(authorization::liveAuthorizations(), 1);
        QCOMPARE(log.lines().size(), 4);
        QVERIFY(log.lines()[2].startsWith(QLatin1String("Current args:  0x")));
        QCOMPARE(log.lines()[3], QStringLiteral("Error:  -60031"));
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("Error: -60031")});
    }

    // chechAdmin()

    void withoutAuthorizationTheCheckFails()
    {
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(!m_window.chechAdmin());
        QCOMPARE(authorization::calls(), QStringList{kCheckCall});
        QCOMPARE(log.lines(), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
        QCOMPARE(log.lines(QtDebugMsg).size(), 1);
        QCOMPARE(errors.lines(),
                 (QStringList{QStringLiteral("ChechAdmin......FALSE"),
                              QStringLiteral("Error: -60002")}));
    }

    void theCheckReportsASuccess()
    {
        authorization::setStatus(kExecute, 0);
        LogCapture log;
        ErrorCapture errors;
        QVERIFY(m_window.chechAdmin());
        QCOMPARE(authorization::calls(), QStringList{kCheckCall});
        QCOMPARE(log.lines(), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("ChechAdmin......TRUE")});
    }
};

QTEST_GUILESS_MAIN(PopoverWindowTest)
#include "tst_popoverwindow.moc"
