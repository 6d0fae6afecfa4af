#include "logcapture.h"
#include "standins.h"
#include "macplatform.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtTest/QtTest>

using vpncore::MacPlatform;

namespace {

const QString kTool = QStringLiteral("osascript");
const QString kItems = QStringLiteral("osascript/login-items");

const QString kListStatement =
    QStringLiteral(R"(tell application "System Events" to get the name of every login item)");
const QString kAddStatement = QStringLiteral(
    R"(tell application "System Events" to make login item at end with properties {name: "TalvexVPN",path:"%1", hidden:false})");
const QString kDeleteStatement =
    QStringLiteral(R"(tell application "System Events" to delete login item "TalvexVPN")");

QStringList osascript(const QString &statement)
{
    return {QStringLiteral("-e"), statement};
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

void makeExecutable(const QString &path)
{
    QVERIFY(QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner));
}

/// Puts a program in front of every other one of its name.
void putInPath(const QString &folder, const QString &name, const QByteArray &script)
{
    write(folder + QLatin1Char('/') + name, "#!/bin/bash\n" + script);
    makeExecutable(folder + QLatin1Char('/') + name);
    qputenv("PATH", folder.toLocal8Bit() + ':' + qgetenv("PATH"));
}

} // namespace

/// The login item, with a stand-in for osascript that keeps the list of items in a file.
class MacPlatformLoginItem : public QObject
{
    Q_OBJECT

private:
    MacPlatform m_platform;
    QScopedPointer<QTemporaryDir> m_folder;
    const QByteArray m_searchPath = qgetenv("PATH");

    /// Makes a folder that nobody can write the working folder.
    static void enterUnwritableFolder()
    {
        const QString list = QFINDTESTDATA("unwritable/list_startup");
        QVERIFY(!list.isEmpty());
        QVERIFY(QDir::setCurrent(QFileInfo(list).absolutePath()));
        QVERIFY(!QFile(QStringLiteral("another_file")).open(QIODevice::WriteOnly));
    }

private Q_SLOTS:
    void init()
    {
        standins::forgetState();
        qputenv("PATH", m_searchPath);
        m_folder.reset(new QTemporaryDir);
        QVERIFY(QDir::setCurrent(m_folder->path()));
    }

    void withoutTheItemItDoesNotRunOnStart() { QVERIFY(!m_platform.isRunOnStart()); }

    void anAddedItemRunsOnStart()
    {
        m_platform.setRunOnStart(true);
        QVERIFY(m_platform.isRunOnStart());
    }

    void aDeletedItemDoesNotRunOnStart()
    {
        standins::setState(kItems, "TalvexVPN\t/Applications/Talvex VPN.app\tfalse\n");
        m_platform.setRunOnStart(false);
        QVERIFY(!m_platform.isRunOnStart());
    }

    void theAddedItemIsTheApplicationAndVisible()
    {
        m_platform.setRunOnStart(true);
        QCOMPARE(standins::stateLines(kItems),
                 QStringList{
                     QStringLiteral("TalvexVPN\t%1\tfalse").arg(MacPlatform::applicationPath())});
    }

    void itemsOfOtherApplicationsDoNotCount()
    {
        standins::setState(kItems,
                           "Notes\t/Applications/Notes.app\tfalse\n"
                           "talvexvpn\t/Applications/Other.app\tfalse\n");
        QVERIFY(!m_platform.isRunOnStart());
    }

    void anItemWhoseNameOnlyBeginsWithTheRightOneCounts()
    {
        standins::setState(kItems, "TalvexVPN Helper\t/Applications/Helper.app\ttrue\n");
        QVERIFY(m_platform.isRunOnStart());
    }

    void deletingLeavesAnItemWhoseNameOnlyBeginsWithTheRightOne()
    {
        standins::setState(kItems,
                           "TalvexVPN Helper\t/Applications/Helper.app\ttrue\n"
                           "TalvexVPN\t/Applications/Talvex VPN.app\tfalse\n");
        m_platform.setRunOnStart(false);
        QCOMPARE(standins::stateLines(kItems),
                 QStringList{QStringLiteral("TalvexVPN Helper\t/Applications/Helper.app\ttrue")});
    }

    void addingDoesNotLookForAnItem()
    {
        m_platform.setRunOnStart(true);
        m_platform.setRunOnStart(true);
        const QStringList add = osascript(kAddStatement.arg(MacPlatform::applicationPath()));
        QCOMPARE(standins::calls(kTool), (QVector<QStringList>{add, add}));
    }

    void listingIsOneExactCall()
    {
        m_platform.isRunOnStart();
        QCOMPARE(standins::calls(kTool), QVector<QStringList>{osascript(kListStatement)});
    }

    void deletingIsOneExactCall()
    {
        m_platform.setRunOnStart(false);
        QCOMPARE(standins::calls(kTool), QVector<QStringList>{osascript(kDeleteStatement)});
    }

    void theListingIsLoggedInQuotesAfterTwoBlanks()
    {
        standins::setState(kItems,
                           "Notes\t/Applications/Notes.app\tfalse\n"
                           "TalvexVPN\t/Applications/Talvex VPN.app\tfalse\n");
        LogCapture log;
        m_platform.isRunOnStart();
        QCOMPARE(log.lines(),
                 QStringList{QStringLiteral("--- Console Output  \"Notes, TalvexVPN\\n\"")});
        QCOMPARE(log.lines(QtDebugMsg).size(), 1);
    }

    void addingAndDeletingLogNothing()
    {
        LogCapture log;
        m_platform.setRunOnStart(true);
        m_platform.setRunOnStart(false);
        QCOMPARE(standins::calls(kTool).size(), 2);
        QCOMPARE(log.lines(), QStringList());
    }

    void theScriptsStayBehindWithTheCommandAndNothingElse_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("statement");
        QTest::addColumn<int>("operation");
        QTest::newRow("list") << QStringLiteral("list_startup") << kListStatement << 0;
        QTest::newRow("add") << QStringLiteral("startup_on_of")
                             << kAddStatement.arg(MacPlatform::applicationPath()) << 1;
        QTest::newRow("delete") << QStringLiteral("startup_on_of") << kDeleteStatement << 2;
    }

    void theScriptsStayBehindWithTheCommandAndNothingElse()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, statement);
        QFETCH(int, operation);
        // Longer than any script, so that a rest of it would show.
        write(fileName, QByteArray(1'000, '#'));

        if (operation == 0)
            m_platform.isRunOnStart();
        else
            m_platform.setRunOnStart(operation == 1);

        QCOMPARE(QDir().entryList(QDir::Files | QDir::Hidden), QStringList{fileName});
        QCOMPARE(contentOf(fileName), "osascript -e '" + statement.toUtf8() + '\'');
        QVERIFY(QFile::permissions(fileName) & QFile::ExeOwner);
    }

    void aLinkInTheScriptsPlaceIsNotWrittenThrough()
    {
        write(QStringLiteral("elsewhere"), "kept");
        QVERIFY(QFile::link(QStringLiteral("elsewhere"), QStringLiteral("list_startup")));
        m_platform.isRunOnStart();
        QCOMPARE(contentOf(QStringLiteral("elsewhere")), QByteArray("kept"));
        QCOMPARE(standins::calls(kTool).size(), 1);
    }

    void timersRunWhileItemsAreListed()
    {
        putInPath(m_folder->path(), kTool, "sleep 1\n");
        int ticks = 0;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &timer, [&ticks] { ++ticks; });
        timer.start(100);
        m_platform.isRunOnStart();
        QVERIFY2(ticks >= 5, qPrintable(QString::number(ticks)));
    }

    void aListingThatHangsIsGivenUpAndJudgedByWhatItPrinted()
    {
        putInPath(m_folder->path(), kTool,
                  "echo $$ >/var/root/stand-ins/osascript/hanging\n"
                  "echo TalvexVPN\n"
                  "exec sleep 120\n");
        standins::setState(kItems, {});
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_platform.isRunOnStart());
        QVERIFY2(timer.elapsed() >= 30'000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY2(timer.elapsed() < 33'000, qPrintable(QString::number(timer.elapsed())));
        standins::endHangingTool(QStringLiteral("osascript/hanging"));
    }

    void inAnUnwritableFolderNothingIsAdded()
    {
        enterUnwritableFolder();
        m_platform.setRunOnStart(true);
        QCOMPARE(standins::calls(kTool), QVector<QStringList>());
    }

    void inAnUnwritableFolderItDoesNotRunOnStart()
    {
        standins::setState(kItems, "TalvexVPN\t/Applications/Talvex VPN.app\tfalse\n");
        QVERIFY(QDir::setCurrent(QStringLiteral("/usr")));
        QVERIFY(!QFile(QStringLiteral("another_file")).open(QIODevice::WriteOnly));
        LogCapture log;
        QVERIFY(!m_platform.isRunOnStart());
        QCOMPARE(log.lines(), QStringList{QStringLiteral("--- Console Output  \"\"")});
    }

    void inAnUnwritableFolderTheScriptThatIsThereRuns()
    {
        enterUnwritableFolder();
        QVERIFY(m_platform.isRunOnStart());
        QCOMPARE(standins::calls(kTool), QVector<QStringList>());
    }

    void fourLevelsBelowTheRootThePathBeginsWithTwoSlashes()
    {
        const QString folder = QStringLiteral("/A.app/Contents/MacOS");
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QFile::copy(QStringLiteral(TALVEX_PROBE), folder + QStringLiteral("/probe")));
        QCOMPARE(QProcess::execute(folder + QStringLiteral("/probe"), {}), 0);
        QCOMPARE(
            standins::calls(kTool),
            QVector<QStringList>{osascript(kAddStatement.arg(QStringLiteral("//Talvex VPN.app")))});
        QCOMPARE(standins::stateLines(kItems),
                 QStringList{QStringLiteral("TalvexVPN\t//Talvex VPN.app\tfalse")});
    }
};

QTEST_GUILESS_MAIN(MacPlatformLoginItem)
#include "tst_macplatform_loginitem.moc"
