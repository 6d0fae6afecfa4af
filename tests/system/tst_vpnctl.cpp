#include "asuser.h"
#include "client.h"
#include "daemonprocess.h"
#include "ipcurls.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnctlprocess.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
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

const QString kUp = QStringLiteral("The tunnel is up.");
const QString kGone = QStringLiteral("vpnctl: The daemon is not running: it left the socket "
                                     "/tmp/local:TalvexFreeVpnIpcInterface behind.");

QString writeFile(const QString &name, const QByteArray &content)
{
    QFile file(QStringLiteral("/var/root/") + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

QString pem()
{
    return pemtexts::certificate() + pemtexts::key();
}

/// @return options that name a record whose host makes the stand-in for openvpn play @p scenario.
/// @param info makes the record as long as it is wanted.
QString recordFor(const QString &scenario, const QString &name = QStringLiteral("record"),
                  const QByteArray &info = {})
{
    writeFile(QStringLiteral("all.pem"), pem().toLatin1());
    return QStringLiteral("--server ")
        + writeFile(name + QStringLiteral(".json"),
                    "{\"host\":\"" + scenario.toLatin1() + "\",\"info\":\"" + info
                        + "\",\"udpPort\":1194,\"tcpPort\":443,\"ca\":\"all.pem\","
                          "\"cert\":\"all.pem\",\"key\":\"all.pem\"}");
}

QString connectTo(const QString &scenario)
{
    return QStringLiteral("connect ") + recordFor(scenario);
}

/// Makes a record with which a connect over UDP has as many bytes as the daemon accepts, and two
/// more for each of @p more characters.
void longestRecord(const QString &name, int more = 0)
{
    const QString rest =
        QStringLiteral(R"({"type":"connect","cmd":"ovpnUdp"}connects)") + pem() + pem() + pem();
    recordFor(QStringLiteral("connects"), name,
              QByteArray((kMaxFrameBytes - 137) / 2 - rest.size() + more, 'x'));
}

QString profile(const QByteArray &text, const QString &name = QStringLiteral("office.ovpn"))
{
    writeFile(QStringLiteral("all.pem"), pem().toLatin1());
    return QStringLiteral("connect ")
        + writeFile(name, text + "ca all.pem\ncert all.pem\nkey all.pem\n");
}

int endpoints()
{
    return QDir(QStringLiteral("/tmp"))
        .entryList({QStringLiteral("local:TalvexFreeVpnIpcInterface_*")}, QDir::System)
        .size();
}

/// @return transport, host and port of the configuration that openvpn was given.
QByteArray remoteOf(const standins::OpenvpnStart &start)
{
    const QList<QByteArray> lines = standins::configurationOf(start).split('\n');
    return lines.value(2).split(' ').value(1) + lines.value(3).mid(6);
}

/// @return the lines with every time replaced by "T".
QStringList withoutTimes(QStringList lines)
{
    return lines.replaceInStrings(QRegularExpression(QStringLiteral("[0-9]+\\.[0-9]+")),
                                  QStringLiteral("T"));
}

/// @return everything but advice: first what went to the standard error, with times as "T".
QByteArray saidBy(VpnctlProcess &vpnctl)
{
    QStringList lines = vpnctl.errorLines() + vpnctl.lines();
    for (const char *advice : {"What to do: ", "Key: "}) {
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [&](const QString &line) {
                                       return line.startsWith(QLatin1String(advice));
                                   }),
                    lines.end());
    }
    return withoutTimes(lines)
        .join(QLatin1Char('|'))
        .replace(QStringLiteral("openvpn reported an error, or was stopped by a newer command or a "
                                "missing heartbeat."),
                 QStringLiteral("ERROR"))
        .replace(QLatin1Char('"'), QLatin1Char('\''))
        .toUtf8();
}

/// @return the lines that say what is wrong, which are one or none in most cases.
QStringList problemsIn(const QStringList &errorLines)
{
    return errorLines.filter(QRegularExpression(QStringLiteral("^vpnctl: ")));
}

QStringList eventsIn(const QStringList &lines)
{
    QStringList events;
    for (const QString &line : lines) {
        events.append(QJsonDocument::fromJson(line.toUtf8())
                          .object()
                          .value(QLatin1String("event"))
                          .toString());
    }
    return events;
}

} // namespace

/// The program against the daemon, as people use the two.
class VpnctlProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir::setCurrent(QStringLiteral("/var/root"))); }

    void init()
    {
        lab::resetPrivateRoot();
        m_daemon = std::make_unique<DaemonProcess>();
        QVERIFY(m_daemon->start());
    }

    void cleanup() { m_daemon.reset(); }

    void oneCommandIsAnswered_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("said");
        QTest::addColumn<QByteArray>("remotes");
        QTest::addColumn<int>("running");
        const auto row = [](const char *arguments, int exitCode, const QByteArray &said,
                            const char *remotes = "", int running = 0) {
            QTest::newRow(arguments) << exitCode << said << QByteArray(remotes) << running;
        };
        row("ping", kDone, "The daemon is there and answered after T ms.");
        row("ping --json", kDone, "{'event':'pong','milliseconds':T}");
        row("raw x --server none.json --json", kWrongUse,
            "{'advice':'','event':'error','exit':2,'text':'Cannot read the record none.json: No "
            "such file or directory.'}");
        row("connect /var/root", kWrongUse,
            "vpnctl: Cannot read the profile /var/root: file to open is a directory.");
        row("connect --server /dev/zero", kWrongUse,
            "vpnctl: The record /dev/zero is too large; at most 1 MiB is read.");
        const QByteArray tooLong("vpnctl: The command with its record takes 262145 bytes, and the "
                                 "daemon accepts 262144 at most.");
        row("connect --server toolong.json", kWrongUse, tooLong);
        row("raw {'type':'connect','cmd':'ovpnUdp'} --server toolong.json", kWrongUse, tooLong);
        for (const char *command :
             {"disconnect --endpoint 9", "watch --endpoint 9", "raw {} --endpoint 9"})
            row(command, kWrongUse, "vpnctl: The daemon has no endpoint 9.");
        const QByteArray late("vpnctl: The daemon did not answer the command within 1 seconds.|");
        row("raw nonsense --timeout 1", kNoAnswer, late + "Endpoint: 1");

        const QByteArray connecting("Endpoint: 1|Connecting to %, port 1194, over UDP|");
        const QByteArray up("Connected after T s.|The tunnel is up and stays up. To take it down: "
                            "vpnctl disconnect --endpoint 1");
        const QByteArray weaker("Without block-ipv6: IPv6 may go around the tunnel, in clear.|");
        row("connect weaker.ovpn", kWrongUse,
            weaker + "vpnctl: The profile asks for more than the daemon can do.");
        row("connect weaker.ovpn --accept-weaker --detach", kDone,
            weaker + QByteArray(connecting).replace('%', "connects") + up, "udp connects 1194", 1);
        row("connect --server longest.json --detach", kDone,
            QByteArray(connecting).replace('%', "connects") + up, "udp connects 1194", 1);
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
                QByteArray(connecting).replace('%', "error")
                    + "Not connected after T s: ERROR|Disconnecting|Disconnected after T s.",
                "udp error 1194");
        for (const char *arguments : {"connect --server silent.json --timeout 1",
                                      "connect --server silent.json --timeout 1 --detach"})
            row(arguments, kNoAnswer,
                late + QByteArray(connecting).replace('%', "silent")
                    + "Disconnecting|Disconnected after T s.",
                "udp silent 1194");
        row("raw {'type':'connect','cmd':'ovpnTcp'} --server connects.json", kDone,
            "Endpoint: 1|Connected after T s.", "tcp connects 443", 1);
    }

    void oneCommandIsAnswered()
    {
        QFETCH(int, exitCode);
        QFETCH(QByteArray, said);
        QFETCH(QByteArray, remotes);
        QFETCH(int, running);
        for (const char *scenario : {"connects", "error", "silent"})
            recordFor(QLatin1String(scenario), QLatin1String(scenario));
        longestRecord(QStringLiteral("longest"));
        longestRecord(QStringLiteral("toolong"), 1);
        profile("remote connects\nblock-ipv6\n", QStringLiteral("weaker.ovpn"));
        profile("remote error 1\nremote will-retry 2 tcp\nroute 10.0.0.0\nremote connects 3\n"
                "remote silent 4\n",
                QStringLiteral("several.ovpn"));
        VpnctlProcess vpnctl;
        const QString arguments = QString::fromLatin1(QTest::currentDataTag());
        QCOMPARE(vpnctl.run(QString(arguments).replace(QLatin1Char('\''), QLatin1Char('"'))),
                 exitCode);
        QCOMPARE(saidBy(vpnctl), said);
        QCOMPARE(endpoints() > 0, said.contains("Endpoint: 1"));
        QByteArrayList called;
        for (const standins::OpenvpnStart &start : standins::openvpnStarts())
            called.append(remoteOf(start));
        QCOMPARE(called.join(", "), remotes);
        QCOMPARE(standins::runningOpenvpns(), running);
    }

    // Without a daemon that works

    void withoutDaemonOneClearLine_data()
    {
        QTest::addColumn<bool>("isSocketLeft");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("no socket")
            << false
            << QStringList{QStringLiteral("vpnctl: The daemon is not running: there is no socket "
                                          "/tmp/local:TalvexFreeVpnIpcInterface."),
                           QStringLiteral("What to do: Start it: sudo launchctl bootstrap system "
                                          "/Library/LaunchDaemons/TalvexVpnd.plist")};
        QTest::newRow("socket of a daemon that was killed")
            << true
            << QStringList{
                   QStringLiteral("vpnctl: The daemon is not running: it left the socket "
                                  "/tmp/local:TalvexFreeVpnIpcInterface behind."),
                   QStringLiteral("What to do: Have launchd start it anew: sudo launchctl "
                                  "kickstart -k system/com.talvex.talvexvpnd. Before starting it "
                                  "by hand, remove the file (sudo rm "
                                  "'/tmp/local:TalvexFreeVpnIpcInterface'), or it cannot listen.")};
    }

    void withoutDaemonOneClearLine()
    {
        QFETCH(bool, isSocketLeft);
        QFETCH(QStringList, lines);
        m_daemon->kill();
        QCOMPARE(isSocketLeft || QFile::remove(shared::getIpcServiceUrl()), true);
        for (const QString &command :
             {QStringLiteral("ping"), connectTo(QStringLiteral("connects")),
              QStringLiteral("disconnect --endpoint 1"), QStringLiteral("watch --endpoint 1"),
              QStringLiteral("raw {}")}) {
            VpnctlProcess vpnctl;
            QCOMPARE(vpnctl.run(command), kNoDaemon);
            QCOMPARE(vpnctl.lines(), QStringList());
            QCOMPARE(vpnctl.errorLines().mid(vpnctl.errorLines().size() - 2), lines);
            QCOMPARE(problemsIn(vpnctl.errorLines()).size(), 1);
        }
    }

    /// Whoever is faster than the daemon can make a socket of its name.
    void programOfAnotherUserIsSentNothing()
    {
        m_daemon->kill();
        QFile::remove(shared::getIpcServiceUrl());
        QLocalServer server;
        {
            const lab::AsUser as(501);
            if (!as.isActive())
                QSKIP("an ordinary user's private root has only root");
            QVERIFY(server.listen(shared::getIpcServiceUrl()));
        }
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(server.hasPendingConnections());
        QLocalSocket *connection = server.nextPendingConnection();
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(problemsIn(vpnctl.errorLines()),
                 QStringList{QStringLiteral(
                     "vpnctl: The program at the other end of "
                     "/tmp/local:TalvexFreeVpnIpcInterface is not root's, but that of user 501. "
                     "Nothing was sent.")});
        QTRY_COMPARE(connection->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(connection->readAll(), QByteArray());
    }

    void daemonThatStopsListeningAndClosesTheConnectionHasGone()
    {
        m_daemon->kill();
        QFile::remove(shared::getIpcServiceUrl());
        QLocalServer server;
        QVERIFY(server.listen(shared::getIpcServiceUrl()));
        VpnctlProcess vpnctl;
        vpnctl.begin(QStringLiteral("ping"));
        QTRY_VERIFY(server.hasPendingConnections());
        delete server.nextPendingConnection();
        server.close(); // after the connection, as it may happen when a process ends
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QVERIFY(vpnctl.errorLines().value(0).contains(QLatin1String("there is no socket")));
    }

    void daemonThatOnlyClosesTheConnectionHasNotGone()
    {
        const int tooFew = m_daemon->descriptors() + 5;
        QCOMPARE(QProcess::execute(QStringLiteral("prlimit"),
                                   {QStringLiteral("--pid=%1").arg(m_daemon->pid()),
                                    QStringLiteral("--nofile=%1").arg(tooFew)}),
                 0);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping")), kNoDaemon);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            QStringList{QStringLiteral("vpnctl: The daemon closed the connection; its log says "
                                       "why.")});
        QVERIFY(m_daemon->count(QStringLiteral("Connection refused: too few descriptors are left"))
                > 0);
    }

    void daemonThatDiesOneClearLine_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("lastLine");
        QTest::newRow("while connecting")
            << QStringLiteral("silent")
            << QStringLiteral("Connecting to silent, port 1194, over UDP");
        QTest::newRow("while holding") << QStringLiteral("connects") << kUp;
    }

    void daemonThatDiesOneClearLine()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, lastLine);
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(scenario));
        QTRY_COMPARE(vpnctl.lines().value(vpnctl.lines().size() - 1), lastLine);
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        m_daemon->kill();
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(problemsIn(vpnctl.errorLines()), QStringList{kGone});
    }

    // What a connect is made of

    void profileComesThroughAPipeOfAnyLength()
    {
        const QByteArray ca = pemtexts::certificate(QStringLiteral("Q0E=")).toLatin1();
        writeFile(QStringLiteral("all.pem"), pem().toLatin1());
        writeFile(
            QStringLiteral("long.ovpn"),
            QByteArray("# a comment, with many others more than a pipe holds\n").repeated(10'000)
                + "remote connects 54\n<ca>\n" + ca
                + "</ca>\ncert /var/root/all.pem\nkey /var/root/all.pem\n");
        VpnctlProcess vpnctl;
        vpnctl.beginWithin({QStringLiteral("/bin/bash"), QStringLiteral("-c")},
                           QStringLiteral("connect --detach <(cat /var/root/long.ovpn)"));
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        const standins::OpenvpnStart start = standins::openvpnStarts().value(0);
        const QByteArray text = standins::configurationOf(start);
        QCOMPARE(remoteOf(start), QByteArray("udp connects 54"));
        QVERIFY(text.contains("<ca>\n" + ca));
        for (const char *block : {"<cert>\n", "<key>\n"})
            QVERIFY(text.contains(block + pem().toLatin1()));
    }

    // Attempts

    void attemptThatCannotBeTakenBackEndsToo()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")) + QStringLiteral(" --timeout 1"));
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGSTOP);
        QCOMPARE(vpnctl.exitCodeWithin(), kNoAnswer);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            (QStringList{
                QStringLiteral("vpnctl: The daemon did not answer the command within 1 seconds."),
                QStringLiteral("vpnctl: The daemon has not said that the tunnel is down: it may "
                               "still be up, and the DNS settings may be the tunnel's.")}));
    }

    void interruptedAttemptStopsOpenvpn_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("SIGINT") << SIGINT;
        QTest::newRow("end of input") << 0;
    }

    void interruptedAttemptStopsOpenvpn()
    {
        QFETCH(int, signal);
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(vpnctl.lines().value(0), QStringLiteral("Endpoint: 1")); // before the answer
        stop(vpnctl, signal);
        QCOMPARE(vpnctl.exitCodeWithin(), kInterrupted);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QVERIFY(vpnctl.lines().contains(QStringLiteral("Disconnecting")));
    }

    /// Of a daemon that does not answer, nothing is known but for how long.
    void progressIsOneLineRenewedOnATerminal()
    {
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGSTOP);
        VpnctlProcess vpnctl;
        vpnctl.beginOnTerminal(QStringLiteral("%1"), connectTo(QStringLiteral("silent")));
        const QString eraseLine = QStringLiteral("\r\x1b[K");
        QTRY_VERIFY(QString::fromUtf8(vpnctl.output()).count(eraseLine) > 12);
        const QStringList lines = QString::fromUtf8(vpnctl.output()).split(eraseLine);
        const QRegularExpression line(
            QStringLiteral("\\AWaiting for the daemon: [0-9]\\.[0-9] s\\z"));
        for (const QString &text : lines.mid(1, 10))
            QVERIFY2(line.match(text).hasMatch(), qPrintable(text));
        ::kill(static_cast<pid_t>(m_daemon->pid()), SIGCONT);
        QTRY_VERIFY(vpnctl.output().contains("Endpoint: 1"));
    }

    void ctrlCIsForTheForeground_data()
    {
        QTest::addColumn<QString>("shell");
        QTest::addColumn<QString>("line");
        QTest::newRow("foreground")
            << QStringLiteral("%1") << QStringLiteral("The tunnel is up. Ctrl-C takes it down.");
        QTest::newRow("background") << QStringLiteral("bash -mc '%1 & wait'") << kUp;
    }

    void ctrlCIsForTheForeground()
    {
        QFETCH(QString, shell);
        QFETCH(QString, line);
        VpnctlProcess vpnctl;
        vpnctl.beginOnTerminal(shell, connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.output().contains(line.toLatin1() + "\r\n"));
    }

    // Holding

    void connectTellsWhatHappensStepByStep_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QStringList>("steps");
        QTest::newRow("text") << QString()
                              << QStringList{
                                     QStringLiteral("Endpoint: 1"),
                                     QStringLiteral("Connecting to connects, port 1194, over UDP"),
                                     QStringLiteral("Connected after T s."),
                                     kUp,
                                     QStringLiteral("Disconnecting"),
                                     QStringLiteral("Disconnected after T s.")};
        QTest::newRow("JSON") << QStringLiteral(
            " --json") << QStringList{QStringLiteral("endpoint"), QStringLiteral("connecting"),
                                      QStringLiteral("answer"),   QStringLiteral("note"),
                                      QStringLiteral("up"),       QStringLiteral("disconnecting"),
                                      QStringLiteral("answer")};
    }

    void connectTellsWhatHappensStepByStep()
    {
        QFETCH(QString, option);
        QFETCH(QStringList, steps);
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")) + option);
        QTRY_COMPARE(vpnctl.lines().size(), steps.size() - 2);
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(option.isEmpty() ? withoutTimes(vpnctl.lines()) : eventsIn(vpnctl.lines()), steps);
        QCOMPARE(problemsIn(vpnctl.errorLines()), QStringList());
    }

    void heldTunnelStaysUpUntilVpnctlIsToldToStop_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addColumn<QString>("input");
        QTest::newRow("end of input") << 0 << QString();
        QTest::newRow("SIGINT") << SIGINT << QString();
        QTest::newRow("SIGTERM") << SIGTERM << QString();
        QTest::newRow("SIGHUP, with a null device as input") << SIGHUP << QProcess::nullDevice();
    }

    void heldTunnelStaysUpUntilVpnctlIsToldToStop()
    {
        QFETCH(int, signal);
        QFETCH(QString, input);
        VpnctlProcess vpnctl;
        if (!input.isEmpty())
            vpnctl.setStandardInputFile(input);
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(m_daemon->count(QStringLiteral("Replica state is  true")), 1);
        stop(vpnctl, signal);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void signalsThatWereIgnoredStayIgnored()
    {
        VpnctlProcess vpnctl;
        vpnctl.beginWithin({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                            QStringLiteral("trap '' HUP INT TERM; exec $0")},
                           connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        for (const int signal : {SIGHUP, SIGINT, SIGTERM})
            vpnctl.raise(signal);
        VpnctlProcess other; // after which the signals have had their effect
        QCOMPARE(other.run(QStringLiteral("ping")), kDone);
        QCOMPARE(vpnctl.state(), QProcess::Running);
        QCOMPARE(vpnctl.lines().constLast(), kUp);
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
    }

    void secondInterruptDoesNotWaitForOpenvpn()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("ignores-term")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        QElapsedTimer sinceFirst;
        sinceFirst.start();
        vpnctl.raise(SIGINT);
        QTRY_VERIFY(vpnctl.lines().contains(QStringLiteral("Disconnecting")));
        // Interrupts in quick succession count as one, so it takes more than one attempt.
        QVERIFY(QTest::qWaitFor(
            [&] {
                vpnctl.raise(SIGINT);
                return vpnctl.state() == QProcess::NotRunning;
            },
            8'000));
        QCOMPARE(vpnctl.exitCode(), kInterrupted);
        QVERIFY(sinceFirst.elapsed() >= 1'000);
        const QStringList errors = vpnctl.errorLines();
        QVERIFY(errors.filter(QStringLiteral("it may still be up")).size() == 1);
        QCOMPARE(errors.constLast(),
                 QStringLiteral("What to do: \"vpnctl disconnect --endpoint 1\" takes the tunnel "
                                "down."));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void nobodyReadingTheOutputEndsTheTunnel()
    {
        VpnctlProcess vpnctl;
        vpnctl.beginWithin({QStringLiteral("/bin/bash"), QStringLiteral("-o"),
                            QStringLiteral("pipefail"), QStringLiteral("-c")},
                           connectTo(QStringLiteral("connects")) + QStringLiteral(" | head -n 2"));
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(vpnctl.lines().size(), 2);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    // Detached tunnels and others' commands

    void detachedTunnelStaysUpUntilItIsTakenDown()
    {
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")) + QStringLiteral(" --detach"));
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(vpnctl.lines().value(0), QStringLiteral("Endpoint: 1"));
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(m_daemon->count(QStringLiteral("Replica state is  true")), 0);
        QCOMPARE(vpnctl.run(QStringLiteral("disconnect --endpoint 1")), kDone);
        QCOMPARE(withoutTimes(vpnctl.lines()),
                 QStringList{QStringLiteral("Disconnected after T s.")});
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void disconnectFromElsewhereEndsTheHolder_data()
    {
        QTest::addColumn<QByteArray>("remotes");
        QTest::addColumn<QString>("lineBefore");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<bool>("isToldWhy");
        const QString connecting = QStringLiteral("Connecting to silent, port 1, over UDP");
        QTest::newRow("of a tunnel") << QByteArray("remote connects 1\n") << kUp << kDone << true;
        QTest::newRow("of the last attempt")
            << QByteArray("remote silent 1\n") << connecting << kFailed << false;
        QTest::newRow("of one of several attempts")
            << QByteArray("remote silent 1\nremote connects 2\nremote connects 3\n")
            << connecting + QStringLiteral(" (server 1 of 3)") << kFailed << true;
    }

    void disconnectFromElsewhereEndsTheHolder()
    {
        QFETCH(QByteArray, remotes);
        QFETCH(QString, lineBefore);
        QFETCH(int, exitCode);
        QFETCH(bool, isToldWhy);
        VpnctlProcess holder;
        holder.begin(profile(remotes));
        QTRY_VERIFY(holder.lines().contains(lineBefore));
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        VpnctlProcess other;
        QCOMPARE(other.run(QStringLiteral("disconnect --endpoint 1")), kDone);
        QCOMPARE(holder.exitCodeWithin(), exitCode);
        QCOMPARE(holder.lines().contains(kUp), exitCode == kDone);
        QCOMPARE(holder.lines().contains(
                     QStringLiteral("Another client of endpoint 1 has taken the tunnel down.")),
                 isToldWhy);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void watchPrintsTheAnswersOfOthers()
    {
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        VpnctlProcess text;
        text.begin(QStringLiteral("watch --endpoint 1"));
        VpnctlProcess json;
        json.begin(QStringLiteral("watch --endpoint 1 --json"));
        QTRY_COMPARE(text.lines(), QStringList{QStringLiteral("Watching endpoint 1")});
        QTRY_COMPARE(json.lines(),
                     QStringList{QStringLiteral(R"({"endpoint":1,"event":"watching"})")});
        client.connectUdp(standins::serverFor(QStringLiteral("connects")));
        QTRY_COMPARE(text.lines().value(1), QStringLiteral("Connected."));
        client.disconnectTunnel();
        QTRY_COMPARE(text.lines().value(2), QStringLiteral("Disconnected."));
        QTRY_COMPARE(eventsIn(json.lines()),
                     (QStringList{QStringLiteral("watching"), QStringLiteral("answer"),
                                  QStringLiteral("answer")}));
        for (VpnctlProcess *vpnctl : {&text, &json}) {
            vpnctl->raise(SIGINT);
            QCOMPARE(vpnctl->exitCodeWithin(), kDone);
        }
    }

private:
    /// @param signal 0 for the end of the input.
    static void stop(VpnctlProcess &vpnctl, int signal)
    {
        if (signal == 0)
            vpnctl.closeWriteChannel();
        else
            vpnctl.raise(signal);
    }

    std::unique_ptr<DaemonProcess> m_daemon;
};

QTEST_GUILESS_MAIN(VpnctlProgram)
#include "tst_vpnctl.moc"
