#include "errorcapture.h"
#include "standinframeworks.h"
#include "logcapture.h"
#include "macplatform.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;

namespace {

const QString kExecute = QStringLiteral("AuthorizationExecuteWithPrivileges");
const QString kExecuteCall =
    QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 1, \"%1\", flags 0, "
                   "arguments [\"%1\", \"\"], pipe wanted)");

} // namespace

/// The platform's entries to administrator rights, with stand-ins for macOS's frameworks.
class MacPlatformElevation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { authorization::reset(); }

    void elevationStartsTheToolWithoutAFolder()
    {
        LogCapture log;
        QVERIFY(MacPlatform::elevateToAdmin());
        QCOMPARE(authorization::calls().value(2),
                 kExecuteCall.arg(QStringLiteral("vpninstallhelper")));
        QCOMPARE(log.lines(QtDebugMsg).mid(0, 3),
                 (QStringList{QStringLiteral("NOT WORK REMOVE"),
                              QStringLiteral("runC  Path to app \"vpninstallhelper\""),
                              QStringLiteral("Current tool:  \"vpninstallhelper\"")}));
    }

    void elevationReportsAFailure()
    {
        authorization::setStatus(kExecute, -60031);
        QVERIFY(!MacPlatform::elevateToAdmin());
    }

    void administratorIsWhoeverPassesTheCheck_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("isAdministrator");
        QTest::newRow("passes") << 0 << true;
        QTest::newRow("does not pass") << -60002 << false;
    }

    void administratorIsWhoeverPassesTheCheck()
    {
        QFETCH(int, status);
        QFETCH(bool, isAdministrator);
        authorization::setStatus(kExecute, status);
        LogCapture log;
        ErrorCapture errors;
        QCOMPARE(MacPlatform::isRunningAsAdministrator(), isAdministrator);
        QCOMPARE(log.lines(), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
        QCOMPARE(authorization::calls().size(), 1);
    }

    void theInstallationToolOfTheResourcesFolderIsRun()
    {
        LogCapture log;
        QVERIFY(MacPlatform::runAsAdmin(QString()));
        const QString contents = QFileInfo(QCoreApplication::applicationDirPath()).path();
        const QString tool = contents + QStringLiteral("/Resources/vpninstallhelper");
        QCOMPARE(authorization::calls().value(2), kExecuteCall.arg(tool));
        QCOMPARE(log.lines().mid(0, 3),
                 (QStringList{QStringLiteral("Resources folder doesn't exist"),
                              QStringLiteral("Resource path:  \"%1\"").arg(tool),
                              QStringLiteral("runC  Path to app \"%1\"").arg(tool)}));
        QCOMPARE(log.lines(QtWarningMsg).size(), 1);
    }

    void theInstallationToolIsRunWhateverTheArgumentIs()
    {
        QVERIFY(MacPlatform::runAsAdmin(QStringLiteral("/bin/rm -r /")));
        const QString execution = authorization::calls().value(2);
        QVERIFY(execution.contains(QLatin1String("/Resources/vpninstallhelper\", flags 0, ")));
        QVERIFY(!execution.contains(QLatin1String("/bin/rm")));
    }

    void theInstallationToolReportsAFailure()
    {
        authorization::setStatus(QStringLiteral("AuthorizationCopyRights"), -60006);
        ErrorCapture errors;
        QVERIFY(!MacPlatform::runAsAdmin(QString()));
        QCOMPARE(errors.lines(), QStringList{QStringLiteral("Copy Rights Unsuccessful: -60006")});
    }

    void anExecutableInTheRootFolderIsOutsideAnyBundle()
    {
        QVERIFY(QFile::copy(QStringLiteral(TALVEX_PROBE), QStringLiteral("/probe")));
        QProcess probe;
        probe.start(QStringLiteral("/probe"), QStringList());
        QVERIFY(probe.waitForFinished());
        QCOMPARE(probe.exitCode(), 0);
        const QList<QByteArray> log = probe.readAllStandardError().split('\n');
        QCOMPARE(log.value(0), QByteArray("Doesn't get resource path"));
        QCOMPARE(log.value(1), QByteArray("Resource path:  \"//vpninstallhelper\""));
        QCOMPARE(log.value(2), QByteArray("runC  Path to app \"//vpninstallhelper\""));
    }
};

QTEST_GUILESS_MAIN(MacPlatformElevation)
#include "tst_macplatform_elevation.moc"
