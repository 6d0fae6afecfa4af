#include "ovpnconnection.h"

#include "configtext.h"
#include "eventwait.h"
#include "files.h"
#include "logcapture.h"
#include "measures.h"
#include "privateroot.h"
#include "standins.h"
#include "translation.h"

#include <QtTest/QtTest>

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

using standins::openvpnStarts;
using standins::runningOpenvpns;
using standins::serverThatPlays;
using vpncore::OvpnConnection;
using vpncore::OvpnLimits;

using Limit = std::chrono::milliseconds OvpnLimits::*;

Q_DECLARE_METATYPE(OvpnLimits)

namespace {

const QString kCannotCreateConfig = "label.can_not_create_config_for_open_vpn";
const QString kCannotStart = "warning.open_vpn_running_fails_check_apps";
const QString kDoesNotExist = "warning.open_vpn_does_not_exists_try_another_protocol";
const QString kTimeOut = "warning.open_vpn_connection_time_out";
const QString kNoResponse = "warning.open_vpn_server_does_not_respond";
const QString kAttemptFailed = "warning.can_not_open_vpn_check_is_admin_granted";

const QString kSeparator = "\r\n----------------- New Connection -----------------\r\n";
const QString kRunning = "openvpn state:  QProcess::Running";
const QString kDnsRestored = "result output  true";
const QString kRequestIsOver = "Connecting timeout, stop processing";
const QString kNoPlace = "QString::arg: Argument missing: " + kTimeOut + ", UDP";

// What `openvpn` plays; see lab/standins/openvpn.
const QString kSilent = ":";
const QString kChatty = "while :; do echo a line; pause 0.03; done";
const QString kCountStarts = "echo >>/tmp/starts; starts=$(wc -l </tmp/starts); ";
const QString kSlowToStop = "close() { echo Still closing; pause 5; }; succeed";

/// An operation that is shorter than this has not waited for any of the limits.
constexpr qint64 kSoonMs = 10'000;

/// Limits that no test reaches. A test shortens those that it is about.
OvpnLimits patient(std::initializer_list<std::pair<Limit, int>> shortened = {})
{
    OvpnLimits limits;
    limits.poll = std::chrono::milliseconds(10);
    limits.firstOutput = limits.attempt = limits.request = limits.terminate = limits.start =
        std::chrono::seconds(30);
    for (const auto &[limit, ms] : shortened)
        limits.*limit = std::chrono::milliseconds(ms);
    return limits;
}

QString programPath()
{
    return QCoreApplication::applicationDirPath() + "/openvpn";
}

QStringList temporaryFiles()
{
    return QDir("/tmp").entryList(QDir::Files | QDir::Hidden);
}

} // namespace

/// What a connection does with each way in which `openvpn` can behave.
class TestOvpnConnection : public QObject
{
    Q_OBJECT

private:
    void use(const OvpnLimits &limits) { m_connection.reset(new OvpnConnection(limits)); }

    OperationResult connectTo(const QString &script)
    {
        m_timer.start();
        return m_connection->connectUdp(serverThatPlays(script));
    }

    /// Hides what is at @p place until the test ends.
    void mount(const QStringList &arguments, const QString &place)
    {
        QCOMPARE(QProcess::execute("mount", arguments + QStringList{place}), 0);
        m_mounted = place;
    }

    /// Runs @p operation once, from inside the wait in which @p isTime comes true.
    void when(const std::function<bool()> &isTime, const std::function<void()> &operation)
    {
        auto *timer = new QTimer(m_timers.data());
        connect(timer, &QTimer::timeout, timer, [timer, isTime, operation] {
            if (!isTime())
                return;
            timer->stop();
            operation();
        });
        timer->start(5ms);
    }

    QElapsedTimer m_timer;
    QString m_mounted;
    QScopedPointer<QObject> m_timers;
    QScopedPointer<LogCapture> m_log;
    QScopedPointer<OvpnConnection> m_connection;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        m_timers.reset(new QObject);
        m_log.reset(new LogCapture);
        use(patient());
    }

    void cleanup()
    {
        m_timers.reset();
        m_connection.reset();
        m_log.reset();
        if (!m_mounted.isEmpty())
            QCOMPARE(QProcess::execute("umount", {std::exchange(m_mounted, {})}), 0);
        QCOMPARE(runningOpenvpns(), 0);
    }

    // The limits.

    void usualLimits()
    {
        const OvpnLimits limits;
        QCOMPARE(limits.poll.count(), 500);
        QCOMPARE(limits.firstOutput.count(), 10'000);
        QCOMPARE(limits.attempt.count(), 16'000);
        QCOMPARE(limits.request.count(), 16'000);
        QCOMPARE(limits.terminate.count(), 15'000);
        QCOMPARE(limits.start.count(), 2'000);
    }

    void requestEndsAtItsLimit_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<OvpnLimits>("limits");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("isStopped"); // because the request has taken too long
        const auto row = [](const char *name, const QString &script, const OvpnLimits &limits,
                            const QString &message, bool isStopped = false) {
            QTest::newRow(name) << script << limits << message << isStopped;
        };
        const QString timeOut = kTimeOut + ": TCP";
        const OvpnLimits silence = patient({{&OvpnLimits::firstOutput, 40}});
        const OvpnLimits attempt = patient({{&OvpnLimits::attempt, 40}});
        const OvpnLimits request = patient({{&OvpnLimits::request, 40}});
        row("silence", kSilent, silence, kNoResponse);
        row("closed output", "exec >&- 2>&-", silence, kNoResponse);
        row("undecided output", kChatty, attempt, timeOut);
        row("program that ends", "exit 1", request, timeOut, true);
        row("program that crashes", "ulimit -c 0; kill -SEGV $$", request, timeOut, true);
        row("success that comes late", "pause 0.06; succeed", request, {});
        row("silence, and the request's end", kSilent,
            patient({{&OvpnLimits::firstOutput, 60}, {&OvpnLimits::request, 40}}), timeOut, true);
        row("output, and then silence", "echo a line",
            patient({{&OvpnLimits::firstOutput, 150}, {&OvpnLimits::attempt, 160}}), timeOut);

        // What counts of several reasons that have come about when the first wait is over.
        OvpnLimits several = patient({{&OvpnLimits::poll, 60}, {&OvpnLimits::firstOutput, 20}});
        row("silence before the program's end", "exit 1", several, kNoResponse);
        several.attempt = std::chrono::milliseconds(30);
        row("attempt before silence", kSilent, several, timeOut);
        several.firstOutput = std::chrono::seconds(30);
        row("attempt before the program's end", "exit 1", several, timeOut);
    }

    void requestEndsAtItsLimit()
    {
        QFETCH(QString, script);
        QFETCH(OvpnLimits, limits);
        QFETCH(QString, message);
        QFETCH(bool, isStopped);
        use(limits);
        const lab::Translation translation(kTimeOut, kTimeOut + ": %1");
        m_timer.start();
        const OperationResult result = m_connection->connectTcp(serverThatPlays(script));
        const auto shortest = std::min({limits.firstOutput, limits.attempt, limits.request});
        QVERIFY2(m_timer.elapsed() >= shortest.count() && m_timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(m_timer.elapsed())));
        QCOMPARE(result.message, message);
        QCOMPARE(m_log->count(kRequestIsOver), isStopped ? 1 : 0);
        QCOMPARE(m_connection->hasProcess(), !isStopped);
        QCOMPARE(temporaryFiles(), QStringList());
    }

    // The course of a request.

    void outcomeIsKnownWithoutAnyLimit_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("starts");
        const auto row = [](const char *name, const QString &script, const QString &message = {},
                            int starts = 1) { QTest::newRow(name) << script << message << starts; };
        row("success", "succeed");
        row("success in two pieces",
            "printf 'Initialization Seq'; pause 0.03; echo uence Completed");
        row("success of the third start", kCountStarts + "((starts == 3)) || exit; succeed", {}, 3);
        row("error", "echo ERROR", kAttemptFailed);
        row("error of the second start", kCountStarts + "((starts == 2)) || exit; echo ERROR",
            kAttemptFailed, 2);
        row("coming retry, on standard error", "echo failed, will try again in 5 seconds >&2",
            kAttemptFailed);
    }

    void outcomeIsKnownWithoutAnyLimit()
    {
        QFETCH(QString, script);
        QFETCH(QString, message);
        QFETCH(int, starts);
        const OperationResult result = connectTo(script);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, message.isEmpty());
        QCOMPARE(result.message, message);
        QCOMPARE(openvpnStarts().size(), starts);
        // A failed attempt leaves its openvpn to the next disconnect.
        QCOMPARE(runningOpenvpns(), 1);
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(!m_connection->hasProcess());
    }

    void onlyASuccessEndsAPassEarly()
    {
        use(patient({{&OvpnLimits::poll, 5'000}}));
        QVERIFY(connectTo("succeed").success);
        QVERIFY(m_timer.elapsed() < 5'000);
        use(patient({{&OvpnLimits::poll, 100}}));
        QVERIFY(!connectTo("echo ERROR").success); // a line that excuses it may follow
        QVERIFY(m_timer.elapsed() >= 100);
    }

    void attemptLogsItsCourse()
    {
        use(patient({{&OvpnLimits::poll, 150}, {&OvpnLimits::request, 100}}));
        QCOMPARE(connectTo("echo Exiting; exit 1").message, kTimeOut);
        QCOMPARE(openvpnStarts().size(), 1);
        const QStringList arguments = openvpnStarts().first().arguments;
        QCOMPARE(arguments.mid(0, 2), (QStringList{programPath(), "--config"}));
        QCOMPARE(m_log->lines(),
                 (QStringList{"Resources folder doesn't exist", kSeparator,
                              QString("\"%1\" \"\\\"%1\\\" --config \\\"%2\\\"\"")
                                  .arg(programPath(), arguments.value(2)),
                              kRunning, "outputString:  \"Exiting\\n\"", "readAll:  \"\"",
                              "openvpn state:  QProcess::NotRunning", kRequestIsOver, "\"\"",
                              kDnsRestored, kNoPlace}));
    }

    void eachTunnelGetsAPrivateConfigurationAndReplacesTheOneBefore()
    {
        QVERIFY(m_connection->connectUdp(serverThatPlays("succeed")).success);
        QVERIFY(m_connection->connectTcp(serverThatPlays("succeed")).success);
        QByteArrayList remotes{"proto udp\nremote 192.0.2.2 1194\n",
                               "proto tcp\nremote 192.0.2.2 443\n"};
        for (const auto &start : openvpnStarts()) {
            QCOMPARE(standins::configurationModeOf(start), QByteArray("600"));
            const QByteArray config = standins::configurationOf(start);
            QVERIFY(config.startsWith("client \ndev tun \n" + remotes.takeFirst()));
            QVERIFY(config.endsWith("</key>\n"));
        }
        QCOMPARE(remotes.size(), 0);
        QVERIFY(!standins::isAlive(openvpnStarts().first().pid));
        QCOMPARE(runningOpenvpns(), 1);
        QCOMPARE(temporaryFiles(), QStringList());
    }

    void configurationIsWrittenInTheWordsOfToday_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("written");
        QTest::addColumn<int>("replacements");
        const auto row = [](const char *name, const QString &text, const QString &written,
                            int replacements = 0) {
            QTest::newRow(name) << text << written << replacements;
        };
        row("plain", "verb 3\r\na\rb\n\n\nc", "verb 3\r\na\rb\n\n\nc");
        row("old words", "compress lzo\nverb 0\n#verb 00\ncompress lzo\n",
            "comp-lzo\nverb 1\n#verb 10\ncomp-lzo\n", 2);
        row("old words in capitals", "Verb 0\nCOMPRESS lzo\n", "Verb 0\nCOMPRESS lzo\n");
        row("Latin-1 and beyond", "\u00e9\u00ff\u00a0\u0085\u20ac\u010a\U0001f600",
            "\u00e9\u00ff\u00a0\u0085????");
        row("NUL", QString("a") + QChar(0) + "verb 0\n", "a");
    }

    void configurationIsWrittenInTheWordsOfToday()
    {
        QFETCH(QString, text);
        QFETCH(QString, written);
        QFETCH(int, replacements);
        text.prepend("play succeed\n");
        QVERIFY(m_connection->connect(text, "UDP").success);
        const QByteArray file = standins::configurationOf(openvpnStarts().first());
        QCOMPARE(QString(file), "play succeed\n" + written);
        const QStringList logged{"replace verb 1", "replace comp-lzo"};
        QCOMPARE(m_log->lines().filter("replace "), logged.mid(0, replacements));
        QCOMPARE(configtext::written(text), file); // on which other tests rely
    }

    // What keeps an attempt from starting.

    void programThatCannotBeStartedFailsAtOnce()
    {
        mount({"--bind", "/etc/passwd"}, programPath());
        const lab::Translation translation(kCannotStart, "as in every language");
        QCOMPARE(connectTo({}).message, QString("as in every language"));
        QCOMPARE(m_log->lines().filter("openvpn state"), QStringList());
        QCOMPARE(temporaryFiles(), QStringList());
    }

    /// The attempt's own limits have passed, too, when the start turns out to have failed.
    void startThatFailsLateIsToldApart()
    {
        use(patient({{&OvpnLimits::start, 50},
                     {&OvpnLimits::poll, 100},
                     {&OvpnLimits::attempt, 50},
                     {&OvpnLimits::firstOutput, 50}}));
        lab::writeFile("/tmp/openvpn", "");
        QVERIFY(QFile::setPermissions("/tmp/openvpn", QFile::ReadOwner | QFile::ExeOwner));
        mount({"--bind", "/tmp/openvpn"}, programPath());
        // With a lease on the file exec(2) waits, as on a disk that hangs.
        std::signal(SIGIO, SIG_IGN); // which asks for its end
        const int file = ::open("/tmp/openvpn", O_RDONLY | O_CLOEXEC);
        QCOMPARE(::fcntl(file, F_SETLEASE, F_WRLCK), 0);
        QTimer::singleShot(0, this, [file] { ::fcntl(file, F_SETLEASE, F_UNLCK); });
        QCOMPARE(connectTo({}).message, kDoesNotExist);
        ::close(file);
        QVERIFY2(m_timer.elapsed() >= 150 && m_timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(m_timer.elapsed())));
        QCOMPARE(m_log->lines().filter("openvpn state"),
                 QStringList("openvpn state:  QProcess::Starting"));
    }

    void configurationThatCannotBeWrittenIsReported()
    {
        mount({"-t", "tmpfs", "-o", "ro", "tmpfs"}, "/tmp");
        QCOMPARE(connectTo({}).message, kCannotCreateConfig);
        QCOMPARE(openvpnStarts().size(), 0);
    }

    void withoutTwentyDescriptorsMoreNothingIsStarted()
    {
        const measures::FewDescriptors few(20); // the first of which the configuration takes
        QCOMPARE(connectTo("succeed").message, kCannotStart);
        QCOMPARE(openvpnStarts().size(), 0);
        QCOMPARE(temporaryFiles(), QStringList());
    }

    void fileOfTheLatestAttemptIsDeletedOnce()
    {
        /// @return a new file in place of the one that the latest attempt had.
        const auto fileAgain = [] {
            const QString path = openvpnStarts().last().arguments.value(2);
            lab::writeFile(path, "");
            return path;
        };
        const QString config = "play echo ERROR\n";
        m_connection->forceConnect(config, "UDP");
        QString file = fileAgain();
        m_connection->deleteConfigFile();
        QVERIFY(!QFile::exists(file));
        lab::writeFile(file, "");
        m_connection->deleteConfigFile();
        m_connection->disconnect();
        QVERIFY(QFile::exists(file));

        m_connection->forceConnect(config, "UDP");
        file = fileAgain();
        m_connection->disconnect();
        QVERIFY(!QFile::exists(file));

        m_connection->connect(config, "UDP"); // which deletes it at its end
        file = fileAgain();
        m_connection->deleteConfigFile();
        QVERIFY(QFile::exists(file));
    }

    // The end of a tunnel.

    void withoutAProcessNothingIsTouched()
    {
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.53\n");
        QVERIFY(m_connection->disconnect().success);
        m_connection->deleteConfigFile();
        m_connection.reset();
        QCOMPARE(m_log->lines(), QStringList()); // Qt logs the removal of a file without a name.
        QCOMPARE(standins::backupFiles(), QStringList("TalvexFreeVPN_dns_Wi-Fi"));
    }

    void openvpnEndsAndThenDnsIsGivenBackOnce_data()
    {
        QTest::addColumn<bool>("isDestroyed");
        QTest::newRow("disconnect") << false;
        QTest::newRow("destruction") << true;
    }

    void openvpnEndsAndThenDnsIsGivenBackOnce()
    {
        QFETCH(bool, isDestroyed);
        QVERIFY(connectTo("close() { echo Still closing; pause 0.1; }; succeed").success);
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.1 192.0.2.2\n");
        m_log->clear();
        m_timer.start();
        if (isDestroyed)
            m_connection.reset();
        else
            QVERIFY(m_connection->disconnect().success);
        QVERIFY(m_timer.elapsed() < kSoonMs);
        QCOMPARE(runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers("Wi-Fi"), (QStringList{"192.0.2.1", "192.0.2.2"}));
        QCOMPARE(standins::backupFiles(), QStringList());
        QCOMPARE(m_log->lines(), (QStringList{"\"Still closing\\n\"", "\"\"", kDnsRestored}));
    }

    void tunnelThatEndsByItselfGivesDnsBackOnce()
    {
        QVERIFY(connectTo("succeed").success);
        standins::writeBackup("TalvexFreeVPN_dns_Wi-Fi", "192.0.2.1\n");
        m_log->clear();
        QCOMPARE(::kill(pid_t(openvpnStarts().last().pid), SIGKILL), 0);
        QTRY_COMPARE(m_log->count(kDnsRestored), 1);
        QCOMPARE(m_log->lines().first(),
                 "The tunnel has ended by itself, the DNS settings are given back");
        QCOMPARE(standins::dnsServers("Wi-Fi"), QStringList("192.0.2.1"));
        QCOMPARE(standins::backupFiles(), QStringList());
        // The next command finds an openvpn that has ended, as after an attempt.
        QVERIFY(m_connection->hasProcess());
        QVERIFY(m_connection->disconnect().success);
        QCOMPARE(m_log->count(kDnsRestored), 2);
    }

    void disconnectEndsWhatDoesNotEnd_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<int>("atLeastMs");
        QTest::newRow("ignores SIGTERM") << "trap '' TERM; succeed" << 100;
        QTest::newRow("is stopped") << "(kill -STOP $$; succeed)" << 100;
        QTest::newRow("has a child that holds its pipe") << "sleep 60 & succeed" << 0;
    }

    void disconnectEndsWhatDoesNotEnd()
    {
        QFETCH(QString, script);
        QFETCH(int, atLeastMs);
        use(patient({{&OvpnLimits::terminate, 100}}));
        QVERIFY(connectTo(script).success);
        m_timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY2(m_timer.elapsed() >= atLeastMs && m_timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(m_timer.elapsed())));
        QCOMPARE(runningOpenvpns(), 0);
        QCOMPARE(m_log->lines().last(), kDnsRestored);
    }

    void ofOutputOutsideOfAnAttemptTheLast256KiBAreKept_data()
    {
        QTest::addColumn<QString>("script");
        QTest::newRow("tunnel") << "succeed; pause 0.05; flood 16; echo >/tmp/printed";
        QTest::newRow("failed attempt") << "echo ERROR; pause 0.05; flood 16; echo >/tmp/printed";
    }

    void ofOutputOutsideOfAnAttemptTheLast256KiBAreKept()
    {
        QFETCH(QString, script);
        connectTo(script);
        // QTRY_VERIFY would read the flood at one piece in ten milliseconds.
        bool hasPrintedAll = false;
        when([] { return QFile::exists("/tmp/printed"); },
             [&hasPrintedAll] { hasPrintedAll = true; });
        QVERIFY(vpncore::waitUntil(20s, [&hasPrintedAll] { return hasPrintedAll; }));
        m_log->clear();
        QVERIFY(m_connection->disconnect().success);
        const int bytes = m_log->lines().first().count("a line of no consequence") * 48;
        QVERIFY2(bytes > 200 * 1024 && bytes <= 256 * 1024, qPrintable(QString::number(bytes)));
        QCOMPARE(m_log->lines().size(), 3); // with the script's output, and that DNS is restored
    }

    // Operations called from inside the waits of others, on the same connection.

    /// A script stands for a connect that plays it, and no script for a disconnect.
    void newestOperationDecides_data()
    {
        QTest::addColumn<bool>("hasTunnel"); // that the outer operation ends first
        QTest::addColumn<QString>("outer");
        QTest::addColumn<QString>("inner");
        const auto row = [](const char *name, bool hasTunnel, const QString &outer,
                            const QString &inner) {
            QTest::newRow(name) << hasTunnel << outer << inner;
        };
        const QString disconnect;
        row("disconnect in a connect", false, kSilent, disconnect);
        row("disconnect in the first step of a connect", true, "succeed", disconnect);
        row("disconnect in a disconnect", true, disconnect, disconnect);
        row("connect in a connect whose time is up when it is through", false, kSilent,
            "pause 0.15; succeed");
        row("connect in a disconnect", true, disconnect, "succeed");
    }

    void newestOperationDecides()
    {
        QFETCH(bool, hasTunnel);
        QFETCH(QString, outer);
        QFETCH(QString, inner);
        use(patient({{&OvpnLimits::poll, 20'000}, {&OvpnLimits::request, 150}}));
        if (hasTunnel) // The second SIGTERM will cut its end short.
            QVERIFY(connectTo(kSlowToStop).success);

        const auto run = [this](const QString &script) {
            return script.isEmpty() ? m_connection->disconnect()
                                    : m_connection->connectUdp(serverThatPlays(script));
        };
        int startsBefore = 0;
        bool hasInnerSucceeded = false;
        when(
            [this, hasTunnel] {
                return hasTunnel ? !m_log->lines().filter("Still closing").isEmpty()
                                 : !openvpnStarts().isEmpty();
            },
            [&] {
                startsBefore = openvpnStarts().size();
                hasInnerSucceeded = run(inner).success;
            });
        m_timer.start();
        QCOMPARE(run(outer).message, outer.isEmpty() ? QString() : kAttemptFailed);
        QVERIFY(m_timer.elapsed() < kSoonMs); // and not when its pass is over
        QVERIFY(hasInnerSucceeded);
        const int connects = inner.isEmpty() ? 0 : 1;
        const int starts = openvpnStarts().size();
        QCOMPARE(starts - startsBefore, connects);
        QCOMPARE(runningOpenvpns(), connects);
        QCOMPARE(m_connection->hasProcess(), connects == 1);
        // Once for each process that has ended, also when two operations have ended it.
        QCOMPARE(m_log->count(kDnsRestored), starts - connects);
        QCOMPARE(m_log->count(kRequestIsOver), 0);
    }

    /// Whoever overrides it decides what ends.
    void disconnectIsCalledThroughItsSlot()
    {
        struct CountingConnection : OvpnConnection
        {
            using OvpnConnection::OvpnConnection;
            OperationResult disconnect() override
            {
                ++disconnects;
                return OperationResult::succeeded();
            }
            int disconnects = 0;
        } connection(patient({{&OvpnLimits::request, 1}}));
        QCOMPARE(connection.connectUdp(serverThatPlays("exit 1")).message, kTimeOut);
        QCOMPARE(connection.disconnects, 2); // before the attempt, and because the time is up
    }
};

QTEST_GUILESS_MAIN(TestOvpnConnection)
#include "tst_ovpnconnection.moc"
