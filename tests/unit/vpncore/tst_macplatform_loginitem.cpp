#include "logcapture.h"
#include "macplatform.h"
#include "privateroot.h"
#include "standins.h"

#include <QtTest/QtTest>

using vpncore::MacPlatform;
using namespace std::chrono_literals;

namespace {

const QString kTool = QStringLiteral("osascript");
const QString kItems = QStringLiteral("osascript/login-items");

const QString kListStatement =
    QStringLiteral(R"(tell application "System Events" to get the name of every login item)");
const QString kAddStatement = QStringLiteral(
    R"(tell application "System Events" to make login item at end with properties {name: "TalvexVPN",path:"%1", hidden:false})");
const QString kDeleteStatement =
    QStringLiteral(R"(tell application "System Events" to delete login item "TalvexVPN")");

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

} // namespace

/// The login item, with a stand-in for osascript that keeps the list of items in a file.
class MacPlatformLoginItem : public QObject
{
    Q_OBJECT

private:
    const QByteArray m_searchPath = qgetenv("PATH");

    /// Makes a folder that nobody can write, and in which there is a script, the working folder.
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
        lab::resetPrivateRoot();
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/work")));
        QVERIFY(QDir::setCurrent(QStringLiteral("/tmp/work")));
    }

    void cleanup() { qputenv("PATH", m_searchPath); }

    void itemRunsOnStartFromAddingToDeleting()
    {
        MacPlatform platform;
        QVERIFY(!platform.isRunOnStart());
        platform.setRunOnStart(true);
        QVERIFY(platform.isRunOnStart());
        QCOMPARE(standins::stateLines(kItems),
                 QStringList{
                     QStringLiteral("TalvexVPN\t%1\tfalse").arg(MacPlatform::applicationPath())});
        platform.setRunOnStart(false);
        QVERIFY(!platform.isRunOnStart());
    }

    void itemCountsWhoseNameContainsTheRightOne_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<bool>("counts");
        QTest::newRow("begins with it") << QByteArray("TalvexVPN Helper") << true;
        QTest::newRow("another case") << QByteArray("talvexvpn") << false;
        QTest::newRow("another name") << QByteArray("Notes") << false;
    }

    void itemCountsWhoseNameContainsTheRightOne()
    {
        QFETCH(QByteArray, name);
        QFETCH(bool, counts);
        standins::setState(kItems, name + "\t/Applications/Some.app\ttrue\n");
        const LogCapture log;
        QCOMPARE(MacPlatform().isRunOnStart(), counts);
        QCOMPARE(log.lines(QtDebugMsg),
                 QStringList{
                     QStringLiteral("--- Console Output  \"%1\\n\"").arg(QString::fromUtf8(name))});
    }

    void operationIsOneCallFromAScriptThatStaysBehind_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("statement");
        QTest::addColumn<int>("operation");
        QTest::newRow("list") << QStringLiteral("list_startup") << kListStatement << 0;
        QTest::newRow("add") << QStringLiteral("startup_on_of")
                             << kAddStatement.arg(MacPlatform::applicationPath()) << 1;
        QTest::newRow("delete") << QStringLiteral("startup_on_of") << kDeleteStatement << 2;
    }

    void operationIsOneCallFromAScriptThatStaysBehind()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, statement);
        QFETCH(int, operation);
        // Longer than any script, so that a rest of it would show; and a link, through which
        // nothing may be written.
        write(QStringLiteral("/tmp/elsewhere"), QByteArray(1'000, '#'));
        QVERIFY(QFile::link(QStringLiteral("/tmp/elsewhere"), fileName));

        const LogCapture log;
        if (operation == 0)
            MacPlatform().isRunOnStart();
        else
            MacPlatform().setRunOnStart(operation == 1);

        QCOMPARE(standins::calls(kTool), (QVector<QStringList>{{QStringLiteral("-e"), statement}}));
        QCOMPARE(QDir().entryList(QDir::Files | QDir::Hidden), QStringList{fileName});
        QCOMPARE(contentOf(fileName), "osascript -e '" + statement.toUtf8() + '\'');
        QVERIFY(QFile::permissions(fileName) & QFile::ExeOwner);
        QCOMPARE(contentOf(QStringLiteral("/tmp/elsewhere")), QByteArray(1'000, '#'));
        QCOMPARE(log.lines().size(), operation == 0 ? 1 : 0);
    }

    void addingDoesNotLookForAnItem()
    {
        MacPlatform().setRunOnStart(true);
        MacPlatform().setRunOnStart(true);
        QCOMPARE(standins::stateLines(kItems).size(), 2);
        QCOMPARE(standins::calls(kTool).size(), 2);
    }

    void listingThatHangsIsGivenUpAndJudgedByWhatItPrinted()
    {
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/bin")));
        write(QStringLiteral("/tmp/bin/osascript"),
              "#!/bin/bash\n"
              "echo TalvexVPN\n"
              "echo $$ >/var/root/stand-ins/osascript/hanging\n"
              "exec sleep 120\n");
        QVERIFY(QFile::setPermissions(QStringLiteral("/tmp/bin/osascript"),
                                      QFile::ReadOwner | QFile::ExeOwner));
        qputenv("PATH", "/tmp/bin:" + m_searchPath);
        standins::setState(kItems, {});

        vpncore::MacPlatformLimits limits;
        limits.listing = 0s; // so that one second has to go by
        bool isTurning = false;
        QTimer::singleShot(0, this, [&isTurning] { isTurning = true; });
        QElapsedTimer timer;
        timer.start();
        QVERIFY(MacPlatform(limits).isRunOnStart());
        QVERIFY2(timer.elapsed() >= 1'000 && timer.elapsed() < 10'000,
                 qPrintable(QString::number(timer.elapsed())));
        QVERIFY(isTurning);
        standins::endHangingTool(QStringLiteral("osascript/hanging"));
    }

    void inAnUnwritableFolderNothingHappens()
    {
        standins::setState(kItems, "TalvexVPN\t/Applications/Talvex VPN.app\tfalse\n");
        QVERIFY(QDir::setCurrent(QStringLiteral("/usr")));
        QVERIFY(!QFile(QStringLiteral("another_file")).open(QIODevice::WriteOnly));
        const LogCapture log;
        MacPlatform().setRunOnStart(false);
        QVERIFY(!MacPlatform().isRunOnStart());
        QCOMPARE(log.lines(), QStringList{QStringLiteral("--- Console Output  \"\"")});
        QCOMPARE(standins::calls(kTool), QVector<QStringList>());
    }

    void inAnUnwritableFolderTheScriptThatIsThereRuns()
    {
        enterUnwritableFolder();
        QVERIFY(MacPlatform().isRunOnStart());
        QCOMPARE(standins::calls(kTool), QVector<QStringList>());
    }
};

QTEST_GUILESS_MAIN(MacPlatformLoginItem)
#include "tst_macplatform_loginitem.moc"
