#include "popoverwindow.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standinframeworks.h"

#include <QtTest/QtTest>

#include <type_traits>

using namespace std::chrono_literals;

namespace {

const QString kTool =
    QStringLiteral("/Applications/Talvex VPN.app/Contents/Resources/vpninstallhelper");
const QString kArgument = QStringLiteral("--install now");

const QString kCreateCall =
    QStringLiteral("AuthorizationCreate(rights [], environment null, flags 0)");
const QString kCopyRightsCall =
    QStringLiteral("AuthorizationCopyRights(authorization 1, "
                   "rights [{\"system.privilege.admin\", length 0, value null, flags 0}], "
                   "environment null, flags 19, copy null)");
const QString kExecuteCall =
    QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 1, \"%1\", flags 0, "
                   "arguments [\"%1\", \"%2\"], pipe given)");
const QString kFreeCall = QStringLiteral("AuthorizationFree(authorization 1, flags 8)");

/// What Qt's debug stream makes of a value.
template<typename T>
QString logged(const T &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text;
}

QString nsLogged(const char *text)
{
    return QStringLiteral("NSLog(%1)").arg(QLatin1String(text));
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

    void theClassHasNoDataAndAVirtualDestructor()
    {
        QCOMPARE(sizeof(PopoverWindow), sizeof(void *));
        QVERIFY(std::has_virtual_destructor_v<PopoverWindow>);
    }

    void aToolHasHalfASecond() { QVERIFY(PopoverWindow::kToolStartTime == 500ms); }

    void aListedServiceRuns_data()
    {
        QTest::addColumn<QString>("result");
        QTest::addColumn<QString>("runs");
        QTest::newRow("listed") << QStringLiteral("93\t0\ttalvexvpnd") << QStringLiteral("true");
        QTest::newRow("in any letter case")
            << QStringLiteral("93\t0\tTalvexVPNd") << QStringLiteral("true");
        QTest::newRow("not listed") << QStringLiteral("") << QStringLiteral("false");
        QTest::newRow("the prompt is cancelled") << QString() << QStringLiteral("false");
    }

    void aListedServiceRuns()
    {
        QFETCH(QString, result);
        QFETCH(QString, runs);
        frameworks::setScriptResult(result);
        LogCapture log;
        QCOMPARE(m_window.isAppRun(), runs == QLatin1String("true"));
        QCOMPARE(frameworks::calls(),
                 QStringList{QStringLiteral(
                     "NSAppleScript(do shell script \"launchctl list | grep talvexvpnd \" "
                     "with administrator privileges, error null)")});
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("Status App  ") + runs,
                              QStringLiteral("Status App executeResult  ") + logged(result)}));
    }

    void aCommandIsPartOfTheScriptAsItStands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("result");
        QTest::addColumn<bool>("succeeds");
        const QString nothing = QStringLiteral("");
        QTest::newRow("succeeds") << QStringLiteral("echo  'x' >/tmp/x") << nothing << true;
        QTest::newRow("escaped quotes")
            << QStringLiteral("test \\\"a b\\\" = x") << nothing << true;
        QTest::newRow("a double quote breaks it")
            << QStringLiteral("echo \"hello\"") << nothing << false;
        QTest::newRow("the prompt is cancelled") << QStringLiteral("true") << QString() << false;
    }

    void aCommandIsPartOfTheScriptAsItStands()
    {
        QFETCH(QString, command);
        QFETCH(QString, result);
        QFETCH(bool, succeeds);
        frameworks::setScriptResult(result);
        LogCapture log;
        QCOMPARE(m_window.runAppScript(command, QStringLiteral("not read\" \\")), succeeds);
        const QString source =
            QStringLiteral("do shell script \"%1\" with administrator privileges").arg(command);
        QCOMPARE(frameworks::calls(),
                 (QStringList{QStringLiteral("NSAppleScript(%1, error given)").arg(source),
                              succeeds ? nsLogged("success!")
                                       : QStringLiteral("NSLog(failure! %1)").arg(source)}));
        const QStringList failure{QStringLiteral("Do cmd failure:  ") + logged(source)};
        QCOMPARE(log.lines(QtDebugMsg), succeeds ? QStringList() : failure);
    }

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
        QVERIFY(m_window.runC(tool, argument, 0ms));
        QCOMPARE(frameworks::calls(),
                 (QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(tool, argument),
                              kFreeCall}));
        QCOMPARE(frameworks::liveAuthorizations(), 0);
        QVERIFY(frameworks::isPipeUntouched());
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{QStringLiteral("runC  Path to app ") + logged(tool),
                              QStringLiteral("Current tool:  ") + logged(tool),
                              QStringLiteral("Current args:  ")
                                  + logged(frameworks::lastArgumentVector()),
                              QStringLiteral("Current status:  0")}));
        QVERIFY(log.lines()[2].startsWith(QLatin1String("Current args:  0x")));
    }

    void timersRunForTheGivenTimeAfterTheStart()
    {
        QVector<int> callsSeen;
        QTimer timer;
        connect(&timer, &QTimer::timeout, &timer,
                [&callsSeen] { callsSeen.append(frameworks::calls().size()); });
        timer.start(10);
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(m_window.runC(kTool, kArgument, 100ms));
        QVERIFY2(elapsed.elapsed() >= 95 && elapsed.elapsed() < 1'000,
                 qPrintable(QString::number(elapsed.elapsed())));
        QVERIFY(!callsSeen.isEmpty());
        // Three calls: the authorization lives as long as the wait.
        QCOMPARE(callsSeen, QVector<int>(callsSeen.size(), 3));
    }

    void aFailureEndsItAndKeepsTheAuthorization_data()
    {
        QTest::addColumn<QString>("function");
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QStringList>("lastLine");
        QTest::newRow("no authorization")
            << QStringLiteral("AuthorizationCreate") << -60008
            << QStringList{kCreateCall, nsLogged("Error Creating Initial Authorization: -60008")}
            << QStringList();
        QTest::newRow("the prompt is cancelled")
            << QStringLiteral("AuthorizationCopyRights") << -60006
            << QStringList{kCreateCall, kCopyRightsCall,
                           nsLogged("Copy Rights Unsuccessful: -60006")}
            << QStringList{QStringLiteral("Copy Rights Unsuccessful:  -60006")};
        QTest::newRow("the tool cannot be started")
            << QStringLiteral("AuthorizationExecuteWithPrivileges") << -60031
            << QStringList{kCreateCall, kCopyRightsCall, kExecuteCall.arg(kTool, kArgument),
                           nsLogged("Error: -60031")}
            << QStringList{QStringLiteral("Error:  -60031")};
    }

    void aFailureEndsItAndKeepsTheAuthorization()
    {
        QFETCH(QString, function);
        QFETCH(int, status);
        QFETCH(QStringList, calls);
        QFETCH(QStringList, lastLine);
        frameworks::setStatus(function, status);
        LogCapture log;
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!m_window.runC(kTool, kArgument, 10s)); // which nobody waits for then
        QVERIFY(elapsed.elapsed() < 5'000);
        QCOMPARE(frameworks::calls(), calls);
        QCOMPARE(frameworks::liveAuthorizations(), calls.contains(kCopyRightsCall) ? 1 : 0);
        QCOMPARE(log.lines(QtDebugMsg).mid(calls.size() == 4 ? 3 : 0), lastLine);
    }

    void theCheckReportsWhatACallWithoutAuthorizationAnswers_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("refused") << -60002
                                 << QStringList{nsLogged("ChechAdmin......FALSE"),
                                                nsLogged("Error: -60002")};
        QTest::newRow("granted") << 0 << QStringList{nsLogged("ChechAdmin......TRUE")};
    }

    void theCheckReportsWhatACallWithoutAuthorizationAnswers()
    {
        QFETCH(int, status);
        QFETCH(QStringList, messages);
        frameworks::setStatus(QStringLiteral("AuthorizationExecuteWithPrivileges"), status);
        LogCapture log;
        QCOMPARE(m_window.chechAdmin(), status == 0);
        QCOMPARE(frameworks::calls(),
                 QStringList{QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 0, "
                                            "\"TalvexVPN\", flags 0, arguments [], pipe given)")}
                     + messages);
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
    }
};

QTEST_GUILESS_MAIN(PopoverWindowTest)
#include "tst_popoverwindow.moc"
