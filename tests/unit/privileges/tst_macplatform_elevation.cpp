#include "macplatform.h"

#include "logcapture.h"
#include "privateroot.h"
#include "standinframeworks.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;

using Entry = std::function<bool()>;

Q_DECLARE_METATYPE(Entry)

namespace {

/// Run by a test: call an operation that depends on where the executable lies.
const QString kRunAsAdmin = "--run-as-admin";

constexpr int kToolFailed = -60031;

const QString kExecute = "AuthorizationExecuteWithPrivileges";

} // namespace

/// The platform's entries to administrator rights, with stand-ins for macOS's frameworks.
class MacPlatformElevation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        frameworks::reset();
    }

    void installationToolIsStarted_data()
    {
        QTest::addColumn<Entry>("entry");
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QStringList>("firstLines");
        const QString contents = QFileInfo(QCoreApplication::applicationDirPath()).path();
        const QString tool = contents + "/Resources/vpninstallhelper";
        QTest::newRow("without a folder") << Entry(MacPlatform::elevateToAdmin)
                                          << "vpninstallhelper" << QStringList{"NOT WORK REMOVE"};
        QTest::newRow("in the resources folder, whatever the argument")
            << Entry([] { return MacPlatform::runAsAdmin("/bin/rm -r /"); }) << tool
            << QStringList{"Resources folder doesn't exist",
                           QString("Resource path:  \"%1\"").arg(tool)};
    }

    void installationToolIsStarted()
    {
        QFETCH(Entry, entry);
        QFETCH(QString, tool);
        QFETCH(QStringList, firstLines);
        LogCapture log;
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(entry());
        QVERIFY(elapsed.elapsed() >= 495); // the tool's usual time
        QCOMPARE(
            frameworks::calls().value(2),
            QString("%1(authorization 1, \"%2\", flags 0, arguments [\"%2\", \"\"], pipe given)")
                .arg(kExecute, tool));
        firstLines.append(QString("runC  Path to app \"%1\"").arg(tool));
        QCOMPARE(log.lines().mid(0, firstLines.size()), firstLines);
        frameworks::setStatus(kExecute, kToolFailed);
        QVERIFY(!entry());
    }

    void administratorIsWhoeverPassesTheCheck()
    {
        LogCapture log;
        for (const int status : {0, kToolFailed}) {
            frameworks::setStatus(kExecute, status);
            QCOMPARE(MacPlatform::isRunningAsAdministrator(), status == 0);
        }
        QCOMPARE(log.count("PopoverWindow::chechAdmin()"), 2);
    }

    void executableInTheRootFolderIsOutsideAnyBundle()
    {
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), "/program"));
        QProcess copy;
        copy.start("/program", {kRunAsAdmin});
        QVERIFY(copy.waitForFinished());
        QVERIFY(QFile::remove("/program"));
        QVERIFY(copy.readAllStandardError().startsWith(
            "Doesn't get resource path\nResource path:  \"//vpninstallhelper\"\n"));
    }
};

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    if (application.arguments().value(1) == kRunAsAdmin)
        return MacPlatform::runAsAdmin({}) ? 0 : 1;
    MacPlatformElevation test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_macplatform_elevation.moc"
