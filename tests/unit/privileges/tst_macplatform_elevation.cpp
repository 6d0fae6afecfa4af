#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standinframeworks.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;

namespace {

/// Run by a test: call an operation that depends on where the executable lies.
const QString kRunAsAdmin = QStringLiteral("--run-as-admin");

constexpr int kToolFailed = -60031;

const QString kExecute = QStringLiteral("AuthorizationExecuteWithPrivileges");
const QString kExecuteCall =
    QStringLiteral("AuthorizationExecuteWithPrivileges(authorization 1, \"%1\", flags 0, "
                   "arguments [\"%1\", \"\"], pipe given)");

} // namespace

/// The platform's entries to administrator rights, with stand-ins for macOS's frameworks. Where the
/// tool is not started, nothing is waited for.
class MacPlatformElevation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        frameworks::reset();
    }

    void elevationStartsTheToolWithoutAFolder_data() { addOutcomes(); }

    void elevationStartsTheToolWithoutAFolder()
    {
        QFETCH(int, status);
        frameworks::setStatus(kExecute, status);
        LogCapture log;
        QCOMPARE(MacPlatform::elevateToAdmin(), status == 0);
        QCOMPARE(frameworks::calls().value(2),
                 kExecuteCall.arg(QStringLiteral("vpninstallhelper")));
        QCOMPARE(log.lines(QtDebugMsg).mid(0, 2),
                 (QStringList{QStringLiteral("NOT WORK REMOVE"),
                              QStringLiteral("runC  Path to app \"vpninstallhelper\"")}));
    }

    void administratorIsWhoeverPassesTheCheck_data() { addOutcomes(); }

    void administratorIsWhoeverPassesTheCheck()
    {
        QFETCH(int, status);
        frameworks::setStatus(kExecute, status);
        LogCapture log;
        QCOMPARE(MacPlatform::isRunningAsAdministrator(), status == 0);
        QCOMPARE(log.lines(), QStringList{QStringLiteral("PopoverWindow::chechAdmin()")});
    }

    void theInstallationToolOfTheResourcesFolderIsRunWhateverTheArgument_data() { addOutcomes(); }

    void theInstallationToolOfTheResourcesFolderIsRunWhateverTheArgument()
    {
        QFETCH(int, status);
        frameworks::setStatus(kExecute, status);
        LogCapture log;
        QCOMPARE(MacPlatform::runAsAdmin(QStringLiteral("/bin/rm -r /")), status == 0);
        const QString contents = QFileInfo(QCoreApplication::applicationDirPath()).path();
        const QString tool = contents + QStringLiteral("/Resources/vpninstallhelper");
        QCOMPARE(frameworks::calls().value(2), kExecuteCall.arg(tool));
        QCOMPARE(log.lines().mid(0, 3),
                 (QStringList{QStringLiteral("Resources folder doesn't exist"),
                              QStringLiteral("Resource path:  \"%1\"").arg(tool),
                              QStringLiteral("runC  Path to app \"%1\"").arg(tool)}));
    }

    void anExecutableInTheRootFolderIsOutsideAnyBundle()
    {
        const QString program = QStringLiteral("/program");
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), program));
        QProcess copy;
        copy.start(program, {kRunAsAdmin});
        QVERIFY(copy.waitForFinished());
        QVERIFY(QFile::remove(program));
        const QList<QByteArray> log = copy.readAllStandardError().split('\n');
        QCOMPARE(log.value(0), QByteArray("Doesn't get resource path"));
        QCOMPARE(log.value(1), QByteArray("Resource path:  \"//vpninstallhelper\""));
        QCOMPARE(log.value(2), QByteArray("runC  Path to app \"//vpninstallhelper\""));
    }

private:
    static void addOutcomes()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("succeeds") << 0;
        QTest::newRow("fails") << kToolFailed;
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    if (application.arguments().value(1) == kRunAsAdmin) {
        frameworks::setStatus(kExecute, kToolFailed);
        return MacPlatform::runAsAdmin(QString()) ? 1 : 0;
    }
    MacPlatformElevation test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform_elevation.moc"
