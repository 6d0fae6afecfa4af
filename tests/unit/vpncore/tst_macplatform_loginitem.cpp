#include "files.h"
#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

using Calls = QVector<QStringList>;

namespace {

const QString kItems = "osascript/login-items";

const QString kListStatement =
    "tell application \"System Events\" to get the name of every login item";
const QString kAddStatement =
    "tell application \"System Events\" to make login item at end with properties "
    "{name: \"TalvexVPN\",path:\"%1\", hidden:false}";
const QString kDeleteStatement =
    "tell application \"System Events\" to delete login item \"TalvexVPN\"";

} // namespace

/// The login item, with a stand-in for osascript that keeps the list of items in a file.
class MacPlatformLoginItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QVERIFY(QDir().mkpath("/tmp/work") && QDir::setCurrent("/tmp/work"));
    }

    void itemRunsOnStartFromAddingToDeleting()
    {
        MacPlatform platform;
        QVERIFY(!platform.isRunOnStart());
        platform.setRunOnStart(true);
        QVERIFY(platform.isRunOnStart());
        platform.setRunOnStart(true); // which does not look for the item that is there
        QCOMPARE(standins::stateLines(kItems).size(), 2);
        platform.setRunOnStart(false);
        platform.setRunOnStart(false);
        QVERIFY(!platform.isRunOnStart());
    }

    void itemCountsWhoseNameContainsTheRightOne_data()
    {
        QTest::addColumn<bool>("counts");
        QTest::newRow("TalvexVPN Helper") << true;
        QTest::newRow("talvexvpn") << false;
    }

    void itemCountsWhoseNameContainsTheRightOne()
    {
        QFETCH(bool, counts);
        const QString name = QTest::currentDataTag();
        standins::setState(kItems, name.toUtf8() + '\n');
        const LogCapture log;
        QCOMPARE(MacPlatform().isRunOnStart(), counts);
        QCOMPARE(log.lines(QtDebugMsg),
                 QStringList(QString("--- Console Output  \"%1\\n\"").arg(name)));
    }

    void operationIsOneCallFromAScriptThatStaysBehind_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("statement");
        QTest::newRow("list") << "list_startup" << kListStatement;
        QTest::newRow("add") << "startup_on_of"
                             << kAddStatement.arg(MacPlatform::applicationPath());
        QTest::newRow("delete") << "startup_on_of" << kDeleteStatement;
    }

    void operationIsOneCallFromAScriptThatStaysBehind()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, statement);
        // A link through which nothing may be written.
        QVERIFY(QFile("/tmp/elsewhere").open(QIODevice::WriteOnly));
        QVERIFY(QFile::link("/tmp/elsewhere", fileName));
        const LogCapture log;
        if (statement == kListStatement)
            MacPlatform().isRunOnStart();
        else
            MacPlatform().setRunOnStart(statement != kDeleteStatement);
        QCOMPARE(standins::calls("osascript"), Calls({{"-e", statement}}));
        QCOMPARE(QDir().entryList(QDir::Files | QDir::Hidden), QStringList(fileName));
        QCOMPARE(lab::contentOf(fileName), "osascript -e '" + statement.toUtf8() + '\'');
        QVERIFY(QFile::permissions(fileName) & QFile::ExeOwner);
        QCOMPARE(lab::contentOf("/tmp/elsewhere"), QByteArray());
        QCOMPARE(log.lines().size(), statement == kListStatement ? 1 : 0);
    }

    void listingThatHangsIsGivenUpAndJudgedByWhatItPrinted()
    {
        const QByteArray searchPath = qgetenv("PATH");
        standins::writeTool("/tmp/bin/osascript", "echo TalvexVPN\nexec sleep 120\n");
        qputenv("PATH", "/tmp/bin:" + searchPath);
        vpncore::MacPlatformLimits limits;
        limits.listing = std::chrono::seconds(0); // so that one second has to go by
        QElapsedTimer timer;
        timer.start();
        const bool isRunOnStart = MacPlatform(limits).isRunOnStart();
        qputenv("PATH", searchPath);
        QVERIFY(isRunOnStart);
        QVERIFY2(timer.elapsed() >= 1'000 && timer.elapsed() < 10'000,
                 qPrintable(QString::number(timer.elapsed())));
    }

    void inAnUnwritableFolderNothingHappens()
    {
        standins::setState(kItems, "TalvexVPN\n");
        QVERIFY(QDir::setCurrent("/usr"));
        const LogCapture log;
        MacPlatform().setRunOnStart(false);
        QVERIFY(!MacPlatform().isRunOnStart());
        QCOMPARE(log.lines(), QStringList("--- Console Output  \"\""));
        QCOMPARE(standins::calls("osascript"), Calls());
    }

    void inAnUnwritableFolderTheScriptThatIsThereRuns()
    {
        standins::writeTool("list_startup", "echo TalvexVPN\n");
        QCOMPARE(QProcess::execute("mount", {"--bind", "-o", "ro", "/tmp/work", "/tmp/work"}), 0);
        QVERIFY(QDir::setCurrent("/tmp/work")); // as it is mounted
        const bool isRunOnStart = MacPlatform().isRunOnStart();
        QVERIFY(QDir::setCurrent("/"));
        QCOMPARE(QProcess::execute("umount", {"/tmp/work"}), 0);
        QVERIFY(isRunOnStart);
        QCOMPARE(standins::calls("osascript"), Calls());
    }
};

QTEST_GUILESS_MAIN(MacPlatformLoginItem)
#include "tst_macplatform_loginitem.moc"
