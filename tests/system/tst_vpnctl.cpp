#include "asuser.h"
#include "client.h"
#include "daemonprocess.h"
#include "files.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnctlprocess.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <csignal>

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUse = 2;
constexpr int kNoDaemon = 3;
constexpr int kNoAnswer = 4;
constexpr int kInterrupted = 130;

constexpr int kMaxFrameBytes = 262'144; // of the daemon

const QString kUp = "The tunnel is up.";
const QString kMainSocket = "/tmp/local:TalvexFreeVpnIpcInterface";

const QByteArray kPem = (pemtexts::certificate() + pemtexts::key()).toLatin1();

/// Writes a record whose host makes the stand-in for openvpn play @p scenario.
/// @param info makes the record as long as it is wanted.
void writeRecord(const QString &name, const QByteArray &scenario, const QByteArray &info = {})
{
    lab::writeFile(
        name + ".json",
        R"({"udpPort":1194,"tcpPort":443,"ca":"all.pem","cert":"all.pem","key":"all.pem","host":")"
            + scenario + R"(","info":")" + info + "\"}");
}

void writeProfile(const QString &name, const QByteArray &text)
{
    lab::writeFile(name, text + "ca all.pem\ncert all.pem\nkey all.pem\n");
}

int endpoints()
{
    return QDir("/tmp").entryList({"local:TalvexFreeVpnIpcInterface_*"}, QDir::System).size();
}

/// @return transport, host and port of the configuration that openvpn was given.
QString remoteOf(const standins::OpenvpnStart &start)
{
    const QStringList lines = QString::fromUtf8(standins::configurationOf(start)).split('\n');
    return lines.value(2).split(' ').value(1) + lines.value(3).mid(6);
}

/// @return everything but advice: first what went to the standard error, with times as "T".
QString saidBy(const VpnctlProcess &vpnctl)
{
    static const QRegularExpression advice("What to do: [^|]*\\||Key: [^|]*\\|");
    static const QRegularExpression time("[0-9]+\\.[0-9]+");
    QString said = (vpnctl.errorLines() + vpnctl.lines()).join('|') + '|';
    said.remove(advice).chop(1);
    return said.replace(time, "T").replace('"', '\'').replace(
        "openvpn reported an error, or was stopped by a newer command or a missing "
        "heartbeat.",
        "ERROR");
}

} // namespace

/// The program against the daemon, as people use the two.
class VpnctlProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir::setCurrent("/var/root")); }

    void init()
    {
        lab::resetPrivateRoot();
        lab::writeFile("all.pem", kPem);
        for (const char *scenario : {"connects", "error", "ignores-term", "silent"})
            writeRecord(scenario, scenario);
        m_daemon = std::make_unique<DaemonProcess>();
        QVERIFY(m_daemon->start());
    }

    void cleanup() { m_daemon.reset(); }

    void oneCommandIsAnswered_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("said");
        QTest::addColumn<QString>("remotes");
        QTest::addColumn<int>("running");
        const auto row = [](const char *arguments, int exitCode, const QString &said,
                            const QString &remotes = {}, int running = 0) {
            QTest::newRow(arguments) << exitCode << said << remotes << running;
        };
        row("ping", kDone, "The daemon is there and answered after T ms.");
        row("ping --json", kDone, "{'event':'pong','milliseconds':T}");
        row("raw x --server none.json --json", kWrongUse,
            "{'advice':'','event':'error','exit':2,'text':'Cannot read the record none.json: No "
            "such file or directory.'}");
        row("connect --server toolong.json", kWrongUse,
            "vpnctl: The command with its record takes 262145 bytes, and the "
            "daemon accepts 262144 at most.");
        for (const char *command :
             {"disconnect --endpoint 9", "watch --endpoint 9", "raw {} --endpoint 9"})
            row(command, kWrongUse, "vpnctl: The daemon has no endpoint 9.");
        const QString late = "vpnctl: The daemon did not answer the command within 1 seconds.|";
        row("raw nonsense --timeout 1", kNoAnswer, late + "Endpoint: 1");

        const QString connecting = "Endpoint: 1|Connecting to %1, port 1194, over UDP|";
        const QString up = "Connected after T s.|The tunnel is up and stays up. To take it down: "
                           "vpnctl disconnect --endpoint 1";
        const QString weaker = "Without block-ipv6: IPv6 may go around the tunnel, in clear.|";
        row("connect weaker.ovpn", kWrongUse,
            weaker + "vpnctl: The profile asks for more than the daemon can do.");
        row("connect weaker.ovpn --accept-weaker --detach", kDone,
            weaker + connecting.arg("connects") + up, "udp connects 1194", 1);
        row("connect --server longest.json --detach", kDone, connecting.arg("connects") + up,
            "udp connects 1194", 1);
        row("connect several.ovpn --detach", kDone,
            "Note: Not carried over from the profile: route.|Endpoint: 1|"
            "Connecting to error, port 1, over UDP (server 1 of 4)|Not connected after T s: ERROR|"
            "Connecting to will-retry, port 2, over TCP (server 2 of 4)|"
            "Not connected after T s: ERROR|"
            "Connecting to connects, port 3, over UDP (server 3 of 4)|"
                + up,
            "udp error 1, tcp will-retry 2, udp connects 3", 1);
        for (const char *arguments :
             {"connect --server error.json", "connect --server error.json --detach"})
            row(arguments, kFailed,
                connecting.arg("error")
                    + "Not connected after T s: ERROR|Disconnecting|Disconnected after T s.",
                "udp error 1194");
        for (const char *arguments : {"connect --server silent.json --timeout 1",
                                      "connect --server silent.json --timeout 1 --detach"})
            row(arguments, kNoAnswer,
                late + connecting.arg("silent") + "Disconnecting|Disconnected after T s.",
                "udp silent 1194");
        row("raw {'type':'connect','cmd':'ovpnTcp'} --server connects.json", kDone,
            "Endpoint: 1|Connected after T s.", "tcp connects 443", 1);
    }

    void oneCommandIsAnswered()
    {
        QFETCH(int, exitCode);
        QFETCH(QString, said);
        QFETCH(QString, remotes);
        QFETCH(int, running);
        // With the first, a connect over UDP has as many bytes as the daemon accepts.
        const QByteArray texts =
            R"({"type":"connect","cmd":"ovpnUdp"}connects)" + kPem + kPem + kPem;
        const QByteArray info((kMaxFrameBytes - 137) / 2 - texts.size(), 'x');
        writeRecord("longest", "connects", info);
        writeRecord("toolong", "connects", info + 'x');
        writeProfile("weaker.ovpn", "remote connects\nblock-ipv6\n");
        writeProfile("several.ovpn",
                     "remote error 1\nremote will-retry 2 tcp\nroute 10.0.0.0\nremote connects 3\n"
                     "remote silent 4\n");
        VpnctlProcess vpnctl;
        const QString arguments = QString::fromLatin1(QTest::currentDataTag());
        vpnctl.begin(QString(arguments).replace('\'', '"'));
        if (arguments.contains("--detach")) // what takes no tunnel down
            vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), exitCode);
        QCOMPARE(saidBy(vpnctl), said);
        QCOMPARE(endpoints() > 0, said.contains("Endpoint: 1"));
        QStringList called;
        for (const standins::OpenvpnStart &start : standins::openvpnStarts())
            called.append(remoteOf(start));
        QCOMPARE(called.join(", "), remotes);
        QCOMPARE(standins::runningOpenvpns(), running);
    }

    // Without a daemon that works

    void withoutDaemonOneClearLine_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<QString>("advice");
        QTest::newRow("no socket")
            << "there is no socket %1."
            << "Start it: sudo launchctl bootstrap system /Library/LaunchDaemons/TalvexVpnd.plist. "
               "If that fails, somebody has switched the job off: switch it on in Login Items.";
        QTest::newRow("socket of a daemon that was killed")
            << "it left the socket %1 behind."
            << "Have launchd start it anew: sudo launchctl kickstart -k "
               "system/com.talvex.talvexvpnd. If launchd does not know the job, somebody has "
               "switched it off: switch it on in Login Items. Before starting it by hand, remove "
               "the file (sudo rm '"
                + kMainSocket + "'), or it cannot listen.";
    }

    void withoutDaemonOneClearLine()
    {
        QFETCH(QString, what);
        QFETCH(QString, advice);
        m_daemon->kill();
        QVERIFY(what.startsWith("it left") || QFile::remove(kMainSocket));
        const QString said = "vpnctl: The daemon is not running: " + what.arg(kMainSocket);
        for (const char *command : {"ping", "connect --server connects.json", "raw {}",
                                    "disconnect --endpoint 1", "watch --endpoint 1"}) {
            VpnctlProcess vpnctl;
            QCOMPARE(vpnctl.run(command), kNoDaemon);
            QCOMPARE(saidBy(vpnctl), said);
            QCOMPARE(vpnctl.errorLines().value(1), "What to do: " + advice);
        }
    }

    /// Whoever is faster than the daemon can make a socket of its name.
    void programOfAnotherUserIsSentNothing()
    {
        m_daemon->kill();
        QFile::remove(kMainSocket);
        QLocalServer server;
        {
            const lab::AsUser as(501);
            if (!as.isActive())
                QSKIP("an ordinary user's private root has only root");
            QVERIFY(server.listen(kMainSocket));
        }
        VpnctlProcess vpnctl;
        vpnctl.begin("connect --server connects.json");
        QTRY_VERIFY(server.hasPendingConnections());
        QLocalSocket *connection = server.nextPendingConnection();
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(saidBy(vpnctl),
                 "vpnctl: The program at the other end of /tmp/local:TalvexFreeVpnIpcInterface is "
                 "not root's, but that of user 501. Nothing was sent.");
        QTRY_COMPARE(connection->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(connection->readAll(), QByteArray());
    }

    void daemonThatStopsListeningAndClosesTheConnectionHasGone()
    {
        m_daemon->kill();
        QFile::remove(kMainSocket);
        QLocalServer server;
        QVERIFY(server.listen(kMainSocket));
        VpnctlProcess vpnctl;
        vpnctl.begin("ping");
        QTRY_VERIFY(server.hasPendingConnections());
        delete server.nextPendingConnection();
        server.close(); // after the connection, as it may happen when a process ends
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QVERIFY(saidBy(vpnctl).contains("there is no socket"));
    }

    void daemonThatOnlyClosesTheConnectionHasNotGone()
    {
        const int tooFew = m_daemon->descriptors() + 5;
        QCOMPARE(QProcess::execute("prlimit",
                                   {QString("--pid=%1").arg(m_daemon->pid()),
                                    QString("--nofile=%1").arg(tooFew)}),
                 0);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run("ping"), kNoDaemon);
        QCOMPARE(saidBy(vpnctl), "vpnctl: The daemon closed the connection; its log says why.");
        QVERIFY(m_daemon->count("Connection refused: too few descriptors are left") > 0);
    }

    // What a connect is made of

    void profileComesThroughAPipeOfAnyLength()
    {
        writeProfile("long.ovpn",
                     QByteArray("# with many others more than a pipe holds\n").repeated(10'000)
                         + "remote connects 54\n");
        VpnctlProcess vpnctl;
        vpnctl.beginInShell("vpnctl connect --detach <(sed 's:all:/var/root/all:' long.ovpn)");
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        const standins::OpenvpnStart start = standins::openvpnStarts().value(0);
        QCOMPARE(remoteOf(start), "udp connects 54");
        QCOMPARE(standins::configurationOf(start).count(kPem), 3);
    }

    // Attempts

    void attemptThatCannotBeTakenBackEndsToo()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin("connect --server silent.json --timeout 1");
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGSTOP);
        QCOMPARE(vpnctl.exitCodeWithin(), kNoAnswer);
        QCOMPARE(vpnctl.errorLines().filter("vpnctl: ").constLast(),
                 "vpnctl: The daemon has not said that the tunnel is down: it may still be up, and "
                 "the DNS settings may be the tunnel's.");
    }

    /// Of a daemon that does not answer, nothing is known but for how long.
    void progressIsOneLineRenewedOnATerminal()
    {
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGSTOP);
        VpnctlProcess vpnctl;
        vpnctl.beginOnTerminal("vpnctl connect --server silent.json");
        const QString eraseLine = "\r\x1b[K";
        QTRY_VERIFY(QString::fromUtf8(vpnctl.output()).count(eraseLine) > 12);
        const QStringList lines = QString::fromUtf8(vpnctl.output()).split(eraseLine);
        const QRegularExpression line("\\AWaiting for the daemon: [0-9]\\.[0-9] s\\z");
        for (const QString &text : lines.mid(1, 10))
            QVERIFY2(line.match(text).hasMatch(), qPrintable(text));
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGCONT);
        QTRY_VERIFY(vpnctl.output().contains("Endpoint: 1"));
    }

    void ctrlCIsForTheForeground()
    {
        VpnctlProcess foreground;
        foreground.beginOnTerminal("vpnctl connect --server connects.json");
        QTRY_VERIFY(foreground.output().contains("The tunnel is up. Ctrl-C takes it down.\r\n"));
        VpnctlProcess background;
        background.beginOnTerminal("bash -mc 'vpnctl connect --server connects.json & wait'");
        QTRY_VERIFY(background.output().contains("The tunnel is up.\r\n"));
    }

    // How a connect ends

    void connectEndsWhenItIsTold_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("signal");
        QTest::addColumn<QString>("input");
        QTest::newRow("attempt, end of input") << "silent" << 0 << "";
        QTest::newRow("attempt, SIGINT") << "silent" << SIGINT << "";
        QTest::newRow("end of input") << "connects" << 0 << "";
        QTest::newRow("SIGINT") << "connects" << SIGINT << "";
        QTest::newRow("SIGTERM") << "connects" << SIGTERM << "";
        QTest::newRow("SIGHUP, null device as input") << "connects" << SIGHUP << "/dev/null";
        QTest::newRow("attempt, daemon dies") << "silent" << SIGKILL << "";
        QTest::newRow("daemon dies") << "connects" << SIGKILL << "";
    }

    void connectEndsWhenItIsTold()
    {
        QFETCH(QString, scenario);
        QFETCH(int, signal);
        QFETCH(QString, input);
        const bool isHeld = scenario == "connects";
        VpnctlProcess vpnctl;
        if (!input.isEmpty())
            vpnctl.setStandardInputFile(input);
        vpnctl.begin(QString("connect --server %1.json").arg(scenario));
        QTRY_COMPARE(vpnctl.lines().size(), isHeld ? 4 : 2); // before the answer of the attempt
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(vpnctl.lines().constLast(),
                 isHeld ? kUp : "Connecting to silent, port 1194, over UDP");
        if (signal == SIGKILL) {
            m_daemon->kill();
            QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
            QVERIFY(saidBy(vpnctl).contains("vpnctl: The daemon is not running: it left the"));
            return;
        }
        QCOMPARE(vpnctl.errorLines().size(), isHeld ? 1 : 0);
        if (signal == 0)
            vpnctl.closeWriteChannel();
        else
            vpnctl.raise(signal);
        QCOMPARE(vpnctl.exitCodeWithin(), isHeld ? kDone : kInterrupted);
        QVERIFY(saidBy(vpnctl).endsWith("|Disconnecting|Disconnected after T s."));
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void signalsThatWereIgnoredStayIgnored()
    {
        VpnctlProcess vpnctl;
        vpnctl.beginInShell("trap '' HUP INT TERM; exec vpnctl connect --server connects.json");
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        for (const int signal : {SIGHUP, SIGINT, SIGTERM})
            vpnctl.raise(signal);
        VpnctlProcess other; // after which the signals have had their effect
        QCOMPARE(other.run("ping"), kDone);
        QCOMPARE(vpnctl.state(), QProcess::Running);
        QCOMPARE(vpnctl.lines().constLast(), kUp);
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
    }

    void secondInterruptDoesNotWaitForOpenvpn()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin("connect --server ignores-term.json");
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        QElapsedTimer sinceFirst;
        sinceFirst.start();
        vpnctl.raise(SIGINT);
        QTRY_VERIFY(vpnctl.lines().contains("Disconnecting"));
        // Interrupts in quick succession count as one, so it takes more than one attempt.
        QVERIFY(QTest::qWaitFor(
            [&] {
                vpnctl.raise(SIGINT);
                return vpnctl.state() == QProcess::NotRunning;
            },
            8'000));
        QCOMPARE(vpnctl.exitCode(), kInterrupted);
        QVERIFY(sinceFirst.elapsed() >= 1'000);
        QCOMPARE(vpnctl.errorLines().filter("it may still be up").size(), 1);
        QCOMPARE(vpnctl.errorLines().constLast(),
                 "What to do: \"vpnctl disconnect --endpoint 1\" takes the tunnel down.");
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void nobodyReadingTheOutputEndsTheTunnel()
    {
        VpnctlProcess vpnctl;
        vpnctl.beginInShell("vpnctl connect --server connects.json | head -n 2");
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(vpnctl.lines().size(), 2);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    // Others' commands

    void disconnectFromElsewhereEndsTheHolder_data()
    {
        QTest::addColumn<QByteArray>("remotes");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<bool>("isToldWhy");
        QTest::newRow("of a tunnel") << QByteArray("remote connects 1\n") << kDone << true;
        QTest::newRow("of the last attempt") << QByteArray("remote silent 1\n") << kFailed << false;
        QTest::newRow("of one of several attempts")
            << QByteArray("remote silent 1\nremote connects 2\nremote connects 3\n") << kFailed
            << true;
    }

    void disconnectFromElsewhereEndsTheHolder()
    {
        QFETCH(QByteArray, remotes);
        QFETCH(int, exitCode);
        QFETCH(bool, isToldWhy);
        writeProfile("o.ovpn", remotes);
        VpnctlProcess holder;
        holder.begin("connect o.ovpn");
        QTRY_COMPARE(holder.lines().size(), exitCode == kDone ? 4 : 2);
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        VpnctlProcess other;
        QCOMPARE(other.run("disconnect --endpoint 1"), kDone);
        QCOMPARE(saidBy(other), "Disconnected after T s.");
        QCOMPARE(holder.exitCodeWithin(), exitCode);
        QCOMPARE(holder.lines().contains(kUp), exitCode == kDone);
        QCOMPARE(saidBy(holder).contains("Another client of endpoint 1 has taken the tunnel down."),
                 isToldWhy);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void answerToSomebodyElseComesTooLateToBePrinted()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        client.connectUdp(standins::serverFor("connects"));
        QTRY_COMPARE(client.answers().size(), 1);
        // While openvpn stands still, both disconnects come; then vpnctl gets both answers at once.
        const auto openvpn = static_cast<pid_t>(standins::openvpnStarts().value(0).pid);
        ::kill(openvpn, SIGSTOP);
        VpnctlProcess vpnctl;
        vpnctl.begin("disconnect --endpoint 1");
        QTRY_COMPARE(m_daemon->count("result params  \"disconnect\""), 1);
        client.disconnectTunnel();
        QTRY_COMPARE(m_daemon->count("result params  \"disconnect\""), 2);
        vpnctl.raise(SIGSTOP);
        ::kill(openvpn, SIGCONT);
        QTRY_COMPARE(client.answers().size(), 3);
        vpnctl.raise(SIGCONT);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(saidBy(vpnctl), "Disconnected after T s.");
    }

    void watchPrintsTheAnswersOfOthers()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        VpnctlProcess vpnctl;
        vpnctl.begin("watch --endpoint 1");
        QTRY_COMPARE(vpnctl.lines(), QStringList{"Watching endpoint 1"});
        client.connectUdp(standins::serverFor("connects"));
        QTRY_COMPARE(vpnctl.lines().value(1), "Connected.");
        client.disconnectTunnel();
        QTRY_COMPARE(vpnctl.lines().value(2), "Disconnected.");
        vpnctl.raise(SIGINT);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
    }

private:
    std::unique_ptr<DaemonProcess> m_daemon;
};

QTEST_GUILESS_MAIN(VpnctlProgram)
#include "tst_vpnctl.moc"
