#include "ipcurls.h"
#include "rep_serviceinterface_source.h"
#include "client.h"
#include "daemonprocess.h"
#include "standins.h"
#include "pemtexts.h"
#include "vpnctlprocess.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

#include <algorithm>
#include <csignal>

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUse = 2;
constexpr int kNoDaemon = 3;
constexpr int kNoAnswer = 4;
constexpr int kInterrupted = 130;

const QString kUp = QStringLiteral("The tunnel is up.");
const QString kAttemptFailedKey =
    QStringLiteral("Key: warning.can_not_open_vpn_check_is_admin_granted");

QString writeFile(const QString &name, const QByteArray &content)
{
    QFile file(QStringLiteral("/var/root/") + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

/// @return the path of a record whose host makes the stand-in for openvpn play @p scenario.
QString recordFor(const QString &scenario)
{
    return writeFile(
        scenario + QStringLiteral(".json"),
        QStringLiteral(R"({"host":"%1","udpPort":1194,"tcpPort":443})").arg(scenario).toLatin1());
}

QString connectTo(const QString &scenario)
{
    return QStringLiteral("connect --server ") + recordFor(scenario);
}

/// @return what the manual page says of an event of the JSON output.
QString manualEntryOf(const QString &event)
{
    QFile page(QStringLiteral(TALVEX_SOURCES "/docs/man/vpnctl.1.md"));
    if (!page.open(QIODevice::ReadOnly))
        return {};
    const QString section =
        QString::fromUtf8(page.readAll()).section(QStringLiteral("# JSON OUTPUT"), 1);
    return section.section(QStringLiteral("\n**%1**\n").arg(event), 1)
        .section(QStringLiteral("\n\n"), 0, 0);
}

/// The longest "info" of recordWithInfo() with which a connect over UDP is no longer than the
/// daemon accepts: (256 KiB - 137 bytes) / 2, less the command and the host.
constexpr int kLongestInfo = 131'003 - 34 - 8;

/// @return the path of a record whose "info" has so many characters; the stand-in connects.
QString recordWithInfo(int size)
{
    return writeFile(QStringLiteral("long.json"),
                     R"({"host":"connects","udpPort":1194,"info":")" + QByteArray(size, 'x')
                         + R"("})");
}

QString profile(const QByteArray &text)
{
    return QStringLiteral("connect --config ") + writeFile(QStringLiteral("office.ovpn"), text);
}

int endpoints()
{
    return QDir(QStringLiteral("/tmp"))
        .entryList({QStringLiteral("local:TalvexFreeVpnIpcInterface_*")}, QDir::System)
        .size();
}

int heartbeats(DaemonProcess &daemon)
{
    return daemon.linesWith(QStringLiteral("Replica state is ")).size();
}

/// @return how many of @p lines begin with @p start.
int countOf(const QStringList &lines, const QString &start)
{
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&](const QString &line) { return line.startsWith(start); }));
}

/// @return the lines that say what is wrong, which are one or none in most cases.
QStringList problemsIn(const QStringList &errorLines)
{
    return errorLines.filter(QRegularExpression(QStringLiteral("^vpnctl: ")));
}

QList<QJsonObject> objectsIn(const QStringList &lines)
{
    QList<QJsonObject> objects;
    for (const QString &line : lines)
        objects.append(QJsonDocument::fromJson(line.toUtf8()).object());
    return objects;
}

QStringList eventsIn(const QStringList &lines)
{
    QStringList events;
    for (const QJsonObject &object : objectsIn(lines))
        events.append(object.value(QLatin1String("event")).toString());
    return events;
}

QJsonObject eventNamed(const QString &name, const QStringList &lines)
{
    for (const QJsonObject &object : objectsIn(lines)) {
        if (object.value(QLatin1String("event")) == name)
            return object;
    }
    return {};
}

/// An endpoint of a later daemon, which answers as this one never does.
class LaterEndpoint : private ServiceInterfaceSource
{
public:
    /// @param answer what comes back to every command.
    LaterEndpoint(const QString &answer, const OperationResult &result)
        : m_answer(answer)
        , m_result(result)
    {
        // A host publishes nothing before it has a connection.
        connect(&m_server, &QLocalServer::newConnection, this, [this] {
            m_host.addHostSideConnection(m_server.nextPendingConnection());
            m_host.enableRemoting(static_cast<ServiceInterfaceSource *>(this));
        });
    }

    bool listen(int number) { return m_server.listen(shared::getIpcProcessUrl(number)); }

private:
    void server_slot(bool) override {}

    void vpn_command(const QString &, const VpnServerInformation &) override
    {
        Q_EMIT vpn_cmd_result(m_answer, m_result);
    }

    QString m_answer;
    OperationResult m_result;
    QLocalServer m_server;
    QRemoteObjectHost m_host;
};

} // namespace

/// The program against the daemon, as people use the two.
class VpnctlProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // ping

    void pingMeasuresTheRoundTrip()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping --json")), kDone);
        QCOMPARE(eventsIn(vpnctl.lines()), QStringList{QStringLiteral("pong")});
        const double time =
            objectsIn(vpnctl.lines())[0].value(QLatin1String("milliseconds")).toDouble();
        QVERIFY2(time > 0 && time < 5000, qPrintable(QString::number(time)));
    }

    void pingSaysInWordsHowLongItTook()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping")), kDone);
        QCOMPARE(vpnctl.lines().size(), 1);
        const QRegularExpression line(
            QStringLiteral("^The daemon is there and answered after [0-9]+\\.[0-9] ms\\.$"));
        QVERIFY2(line.match(vpnctl.lines().constFirst()).hasMatch(),
                 qPrintable(vpnctl.lines().constFirst()));
        QCOMPARE(vpnctl.errorLines(), QStringList());
    }

    void pingLeavesNoEndpointBehind()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping")), kDone);
        QTRY_COMPARE(daemon.count(QStringLiteral("LocalServer new connection")), 1);
        QCOMPARE(daemon.count(QStringLiteral("Source Node Started")), 0);
        QCOMPARE(endpoints(), 0);
    }

    // Without a daemon that works

    void withoutDaemonOneClearLine_data() { addCommands(); }

    void withoutDaemonOneClearLine()
    {
        QFETCH(QString, command);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(command), kNoDaemon);
        QCOMPARE(vpnctl.lines(), QStringList());
        QCOMPARE(countOf(vpnctl.errorLines(), QStringLiteral("vpnctl: ")), 1);
        QCOMPARE(
            vpnctl.errorLines().mid(vpnctl.errorLines().size() - 2),
            (QStringList{QStringLiteral("vpnctl: The daemon is not running: there is no socket "
                                        "/tmp/local:TalvexFreeVpnIpcInterface."),
                         QStringLiteral("What to do: Start it: sudo launchctl bootstrap system "
                                        "/Library/LaunchDaemons/TalvexVpnd.plist")}));
    }

    void staleSocketOneClearLine_data() { addCommands(); }

    void staleSocketOneClearLine()
    {
        {
            DaemonProcess daemon;
            QVERIFY(daemon.start());
            daemon.kill();
        }
        QVERIFY(QFile::exists(shared::getIpcServiceUrl()));
        QFETCH(QString, command);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(command), kNoDaemon);
        QCOMPARE(vpnctl.lines(), QStringList());
        QCOMPARE(countOf(vpnctl.errorLines(), QStringLiteral("vpnctl: ")), 1);
        QCOMPARE(vpnctl.errorLines().mid(vpnctl.errorLines().size() - 2),
                 (QStringList{
                     QStringLiteral("vpnctl: The daemon is not running: it left the socket "
                                    "/tmp/local:TalvexFreeVpnIpcInterface behind."),
                     QStringLiteral("What to do: Have launchd start it anew: sudo launchctl "
                                    "kickstart -k system/com.talvex.talvexvpnd. Before starting it "
                                    "by hand, remove the file (sudo rm "
                                    "'/tmp/local:TalvexFreeVpnIpcInterface'), or it cannot "
                                    "listen.")}));
        QFile::remove(shared::getIpcServiceUrl());
    }

    void daemonThatHangsGivesNoAnswer()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        ::kill(static_cast<pid_t>(daemon.pid()), SIGSTOP);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping"), 20'000), kNoAnswer);
        QCOMPARE(problemsIn(vpnctl.errorLines()),
                 QStringList{QStringLiteral("vpnctl: The daemon accepts connections but did not "
                                            "answer within 15 seconds.")});
    }

    void daemonThatRestoresDnsForLongAnswersAfterwards()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        ::kill(static_cast<pid_t>(daemon.pid()), SIGSTOP);
        VpnctlProcess vpnctl;
        vpnctl.begin(QStringLiteral("ping"));
        QTest::qWait(10'500); // the longest that the daemon does nothing else
        QCOMPARE(vpnctl.state(), QProcess::Running);
        ::kill(static_cast<pid_t>(daemon.pid()), SIGCONT);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(vpnctl.errorLines(), QStringList());
    }

    void daemonThatStopsListeningAndClosesTheConnectionHasGone()
    {
        QLocalServer server;
        QVERIFY(server.listen(shared::getIpcServiceUrl()));
        VpnctlProcess vpnctl;
        vpnctl.begin(QStringLiteral("ping"));
        QTRY_VERIFY(server.hasPendingConnections());
        delete server.nextPendingConnection();
        server.close(); // after the connection, as it may happen when a process ends
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            QStringList{QStringLiteral("vpnctl: The daemon has gone: it closed the connection.")});
    }

    void daemonThatOnlyClosesTheConnectionHasNotGone()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const int tooFew = daemon.descriptors() + 5;
        QCOMPARE(QProcess::execute(QStringLiteral("prlimit"),
                                   {QStringLiteral("--pid=%1").arg(daemon.pid()),
                                    QStringLiteral("--nofile=%1").arg(tooFew)}),
                 0);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("ping")), kNoDaemon);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            QStringList{QStringLiteral("vpnctl: The daemon closed the connection; its log says "
                                       "why.")});
        QVERIFY(daemon.count(QStringLiteral("Connection refused: too few descriptors are left"))
                > 0);
    }

    void daemonThatDiesWhileConnectingOneClearLine()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        daemon.kill();
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            QStringList{QStringLiteral("vpnctl: The daemon has gone: it closed the connection.")});
    }

    void daemonThatDiesWhileHoldingOneClearLine()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        daemon.kill();
        QCOMPARE(vpnctl.exitCodeWithin(), kNoDaemon);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            QStringList{QStringLiteral("vpnctl: The daemon has gone: it closed the connection.")});
    }

    // connect

    void connectTellsWhatHappensStepByStep()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QStringList lines = vpnctl.lines();
        lines.replaceInStrings(QRegularExpression(QStringLiteral("[0-9]+\\.[0-9] s")),
                               QStringLiteral("T s"));
        QCOMPARE(lines,
                 (QStringList{QStringLiteral("Endpoint: 1"),
                              QStringLiteral("Connecting to connects, port 1194, over UDP"),
                              QStringLiteral("Connected after T s."), kUp,
                              QStringLiteral("Disconnecting"),
                              QStringLiteral("Disconnected after T s.")}));
    }

    void endpointIsPrintedWhileTheAttemptWaits()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        QTRY_COMPARE(vpnctl.lines().value(0), QStringLiteral("Endpoint: 1"));
        QCOMPARE(vpnctl.state(), QProcess::Running);
    }

    void recordReachesOpenvpn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        writeFile(QStringLiteral("ca.crt"),
                  pemtexts::certificate(QStringLiteral("Q0E=")).toLatin1());
        writeFile(QStringLiteral("me.crt"), pemtexts::certificate().toLatin1());
        writeFile(QStringLiteral("me.key"), pemtexts::key().toLatin1());
        const QString record = writeFile(
            QStringLiteral("r.json"),
            R"({"host":"connects","ca":"ca.crt","cert":"me.crt","key":"me.key","tcpPort":443})");
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("connect --detach --server ") + record), kDone);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto tcp\nremote connects 443\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate(QStringLiteral("Q0E=")).toLatin1()));
        QVERIFY(text.contains("<cert>\n" + pemtexts::certificate().toLatin1()));
        QVERIFY(text.contains("<key>\n" + pemtexts::key().toLatin1()));
    }

    void hostOptionsReachOpenvpn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const QString ca = writeFile(QStringLiteral("ca.crt"), pemtexts::certificate().toLatin1());
        VpnctlProcess vpnctl;
        QCOMPARE(
            vpnctl.run(QStringLiteral("connect --detach --host connects --port 53 --ca ") + ca),
            kDone);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto udp\nremote connects 53\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate().toLatin1()));
    }

    void remotesAreTriedInOrderUntilOneConnects()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(profile("remote error 1\nremote will-retry 2 tcp\nremote connects 3\n"
                                    "remote silent 4\n")
                            + QStringLiteral(" --detach")),
                 kDone);
        QVector<QByteArray> remotes;
        for (const standins::OpenvpnStart &start : standins::openvpnStarts())
            remotes.append(standins::configurationOf(start).split('\n').value(3));
        QCOMPARE(
            remotes,
            (QVector<QByteArray>{"remote error 1", "remote will-retry 2", "remote connects 3"}));
    }

    void directivesNotCarriedOverAreNamedInOneLine()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(profile("client\nremote connects\nverb 3\nauth SHA256\n")
                            + QStringLiteral(" --detach")),
                 kDone);
        QCOMPARE(vpnctl.errorLines().value(0),
                 QStringLiteral("Note: Not carried over from the profile: verb, auth."));
    }

    void badInputOneClearLineAndNoEndpoint_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("line");
        QTest::addRow("missing profile")
            << QStringLiteral("connect --config /var/root/none.ovpn")
            << QStringLiteral(
                   "vpnctl: Cannot read the profile /var/root/none.ovpn: No such file or "
                   "directory.");
        QTest::addRow("profile with a missing file")
            << profile("remote a\nca none.crt\n")
            << QStringLiteral("vpnctl: Cannot read the ca file /var/root/none.crt: No such file or "
                              "directory.");
        QTest::addRow("profile that is a folder")
            << QStringLiteral("connect --config /var/root")
            << QStringLiteral(
                   "vpnctl: Cannot read the profile /var/root: file to open is a directory.");
        QTest::addRow("missing record")
            << QStringLiteral("connect --server /var/root/none.json")
            << QStringLiteral("vpnctl: Cannot read the record /var/root/none.json: No such file or "
                              "directory.");
        QTest::addRow("endless record")
            << QStringLiteral("connect --server /dev/zero")
            << QStringLiteral("vpnctl: The record /dev/zero is too large; at most 1 MiB is read.");
        QTest::addRow("endless profile")
            << QStringLiteral("connect --config /dev/zero")
            << QStringLiteral("vpnctl: The profile /dev/zero is too large; at most 1 MiB is read.");
        QTest::addRow("endless ca")
            << QStringLiteral("connect --host a --ca /dev/zero")
            << QStringLiteral("vpnctl: The ca file /dev/zero is too large; at most 1 MiB is read.");
        QTest::addRow("port out of range")
            << QStringLiteral("connect --host a --ca b --port 70000")
            << QStringLiteral("vpnctl: --port must be a number from 1 to 65535, not \"70000\".");
        QTest::addRow("port out of range in a record")
            << QStringLiteral("connect --server ")
                + writeFile(QStringLiteral("p.json"), R"({"host":"a","udpPort":70000})")
            << QStringLiteral("vpnctl: /var/root/p.json: \"udpPort\" must be a whole number from 0 "
                              "to 65535.");
    }

    void profileThroughAPipeIsRead()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        const QByteArray comments("# a comment, with many others more than a pipe holds at once\n");
        const QString path = writeFile(QStringLiteral("long.ovpn"),
                                       comments.repeated(10'000) + "remote connects 53\n");
        VpnctlProcess vpnctl;
        vpnctl.beginWithin({QStringLiteral("/bin/bash"), QStringLiteral("-c")},
                           QStringLiteral("connect --detach --config <(cat %1)").arg(path));
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts()[0]).split('\n').value(3),
                 QByteArray("remote connects 53"));
    }

    void badInputOneClearLineAndNoEndpoint()
    {
        QFETCH(QString, arguments);
        QFETCH(QString, line);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(arguments), kWrongUse);
        QCOMPARE(problemsIn(vpnctl.errorLines()), QStringList{line});
        QCOMPARE(vpnctl.lines(), QStringList());
        QCOMPARE(endpoints(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void longestCommandReachesTheDaemon()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(
            vpnctl.run(QStringLiteral("connect --detach --server ") + recordWithInfo(kLongestInfo)),
            kDone);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void commandLongerThanTheDaemonAcceptsIsRefusedBefore_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addRow("connect") << QStringLiteral("connect --server ");
        QTest::addRow("raw") << QStringLiteral(
            R"(raw {"type":"connect","cmd":"ovpnUdp"} --server )");
    }

    void commandLongerThanTheDaemonAcceptsIsRefusedBefore()
    {
        QFETCH(QString, command);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(command + recordWithInfo(kLongestInfo + 1)), kWrongUse);
        QCOMPARE(problemsIn(vpnctl.errorLines()),
                 QStringList{QStringLiteral("vpnctl: The command with its record takes 262145 "
                                            "bytes, and the daemon accepts 262144 at most.")});
        QCOMPARE(endpoints(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void failureIsExplainedWithItsKey()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("error"))), kFailed);
        QCOMPARE(countOf(vpnctl.lines(), QStringLiteral("Not connected after ")), 1);
        QCOMPARE(countOf(vpnctl.lines(), QStringLiteral("What to do: ")), 1);
        QCOMPARE(countOf(vpnctl.lines(), kAttemptFailedKey), 1);
    }

    void failedAttemptLeavesNothingRunning_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addRow("held") << QString();
        QTest::addRow("detached") << QStringLiteral(" --detach");
    }

    void failedAttemptLeavesNothingRunning()
    {
        QFETCH(QString, option);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("error")) + option), kFailed);
        QVERIFY(!standins::openvpnStarts().isEmpty());
        QCOMPARE(standins::runningOpenvpns(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void attemptThatIsNotAnsweredInTimeIsTakenBack_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addRow("held") << QString();
        QTest::addRow("detached") << QStringLiteral(" --detach");
    }

    void attemptThatIsNotAnsweredInTimeIsTakenBack()
    {
        QFETCH(QString, option);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("silent")) + QStringLiteral(" --timeout 2")
                            + option),
                 kNoAnswer);
        QCOMPARE(problemsIn(vpnctl.errorLines()),
                 QStringList{QStringLiteral(
                     "vpnctl: The daemon did not answer the command within 2 seconds.")});
        QCOMPARE(countOf(vpnctl.lines(), QStringLiteral("Disconnected after ")), 1);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
        standins::forgetState();
    }

    void attemptThatCannotBeTakenBackEndsToo()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")) + QStringLiteral(" --timeout 2"));
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        ::kill(static_cast<pid_t>(daemon.pid()), SIGSTOP);
        QCOMPARE(vpnctl.exitCodeWithin(), kNoAnswer);
        QCOMPARE(
            problemsIn(vpnctl.errorLines()),
            (QStringList{
                QStringLiteral("vpnctl: The daemon did not answer the command within 2 seconds."),
                QStringLiteral("vpnctl: The daemon did not say within 2 seconds that the "
                               "tunnel is down.")}));
    }

    void answerWithinTheTimeoutIsNotTakenBack()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")) + QStringLiteral(" --timeout 2"));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        QTest::qWait(2'500); // longer than the limit, which the answer has ended
        QCOMPARE(vpnctl.state(), QProcess::Running);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void progressIsPrintedAsPlainLinesWithoutATerminal()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        const QRegularExpression line(
            QStringLiteral("^   [45]\\.[0-9] s of 16 s: openvpn is calling the server$"));
        QTRY_COMPARE_WITH_TIMEOUT(vpnctl.lines().indexOf(line), 2, 8'000);
        QVERIFY(!vpnctl.output().contains('\r'));
    }

    void progressIsALineThatLivesOnATerminal()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.setVariable(QStringLiteral("TERM"), QStringLiteral("xterm"));
        vpnctl.beginWithin({QStringLiteral("/usr/bin/script"), QStringLiteral("--quiet"),
                            QStringLiteral("--log-out"), QStringLiteral("/dev/null"),
                            QStringLiteral("--command")},
                           connectTo(QStringLiteral("silent")));
        const auto hasLine = [&vpnctl](const char *text) {
            const QRegularExpression line(QStringLiteral("\r\x1b\\[K   ") + QLatin1String(text));
            return line.match(QString::fromUtf8(vpnctl.output())).hasMatch();
        };
        QTRY_VERIFY(hasLine("0\\.[1-9] s of 16 s: openvpn is starting"));
        QTRY_VERIFY(hasLine("[1-4]\\.[0-9] s of 16 s: openvpn is calling the server"));
    }

    // Holding

    void heldTunnelStaysUpAndIsTakenDownWhenAsked_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addRow("end of input") << 0;
        QTest::addRow("SIGINT") << SIGINT;
        QTest::addRow("SIGTERM") << SIGTERM;
        QTest::addRow("SIGHUP") << SIGHUP;
    }

    void heldTunnelStaysUpAndIsTakenDownWhenAsked()
    {
        QFETCH(int, signal);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        QCOMPARE(standins::runningOpenvpns(), 1);
        if (signal == 0)
            vpnctl.closeWriteChannel();
        else
            vpnctl.raise(signal);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(standins::runningOpenvpns(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void signalThatWasIgnoredDoesNotEndTheTunnel_data()
    {
        QTest::addColumn<int>("ignored");
        QTest::addColumn<int>("other");
        QTest::addRow("SIGHUP") << SIGHUP << SIGINT;
        QTest::addRow("SIGINT") << SIGINT << SIGHUP;
        QTest::addRow("SIGTERM") << SIGTERM << SIGINT;
    }

    void signalThatWasIgnoredDoesNotEndTheTunnel()
    {
        QFETCH(int, ignored);
        QFETCH(int, other);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.beginWithin({QStringLiteral("/bin/bash"), QStringLiteral("-c"),
                            QStringLiteral("trap '' %1; exec $0").arg(ignored)},
                           connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        vpnctl.raise(ignored);
        QTest::qWait(1'000); // nothing tells that a signal was ignored
        QCOMPARE(vpnctl.state(), QProcess::Running);
        QCOMPARE(vpnctl.lines().constLast(), kUp);
        QCOMPARE(standins::runningOpenvpns(), 1);
        vpnctl.raise(other);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(standins::runningOpenvpns(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void nullDeviceAsInputDoesNotEndTheTunnel()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.setStandardInputFile(QProcess::nullDevice());
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_COMPARE_WITH_TIMEOUT(heartbeats(daemon), 2, 15'000);
        QCOMPARE(vpnctl.state(), QProcess::Running);
    }

    void heartbeatOutlastsTheDaemonsLimit()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        // The daemon's limit is 30 s, so the fifth heartbeat comes after it.
        QTRY_COMPARE_WITH_TIMEOUT(heartbeats(daemon), 5, 45'000);
        QCOMPARE(daemon.count(QStringLiteral("Client was disconnected")), 0);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void killedHolderLosesItsTunnel()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        vpnctl.raise(SIGKILL);
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 35'000);
        QCOMPARE(daemon.count(QStringLiteral("Client was disconnected")), 1);
    }

    void stoppedHolderSaysThatItHasLostItsTunnel()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        vpnctl.raise(SIGSTOP);
        QTRY_COMPARE_WITH_TIMEOUT(standins::runningOpenvpns(), 0, 35'000);
        QVERIFY(!vpnctl.lines().contains(QStringLiteral("Disconnecting")));
        vpnctl.raise(SIGCONT);
        QCOMPARE(vpnctl.exitCodeWithin(), kFailed);
        QCOMPARE(countOf(vpnctl.lines(), QStringLiteral("vpnctl was stopped or held up for ")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void holderThatIsStoppedForAShorterTimeGoesOn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(kUp));
        vpnctl.raise(SIGSTOP);
        QTest::qWait(20'000);
        QCOMPARE(heartbeats(daemon), 1);
        vpnctl.raise(SIGCONT);
        QTRY_COMPARE_WITH_TIMEOUT(heartbeats(daemon), 3, 15'000);
        QCOMPARE(vpnctl.lines().constLast(), kUp);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void interruptedAttemptStopsOpenvpn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        vpnctl.raise(SIGINT);
        QCOMPARE(vpnctl.exitCodeWithin(), kInterrupted);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void endOfInputWhileConnectingStopsOpenvpn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("silent")));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kInterrupted);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QVERIFY(vpnctl.lines().contains(QStringLiteral("Disconnecting")));
    }

    void endOfInputDoesNotStopADetachedAttempt()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")) + QStringLiteral(" --detach"));
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void secondInterruptDoesNotWaitForOpenvpn()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
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
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void nobodyReadingTheOutputEndsTheTunnel()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
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

    void detachedTunnelStaysUpWithoutHeartbeat()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("connects")) + QStringLiteral(" --detach")),
                 kDone);
        QCOMPARE(vpnctl.lines().value(0), QStringLiteral("Endpoint: 1"));
        QCOMPARE(standins::runningOpenvpns(), 1);
        QCOMPARE(heartbeats(daemon), 0);
    }

    void disconnectTakesADetachedTunnelDown()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("connects")) + QStringLiteral(" --detach")),
                 kDone);
        QCOMPARE(vpnctl.run(QStringLiteral("disconnect --endpoint 1")), kDone);
        QCOMPARE(countOf(vpnctl.lines(), QStringLiteral("Disconnected")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void disconnectFromElsewhereEndsTheHolder()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess holder;
        holder.begin(connectTo(QStringLiteral("connects")));
        QTRY_VERIFY(holder.lines().contains(kUp));
        VpnctlProcess other;
        QCOMPARE(other.run(QStringLiteral("disconnect --endpoint 1")), kDone);
        QCOMPARE(holder.exitCodeWithin(), kDone);
        QCOMPARE(holder.lines().constLast(),
                 QStringLiteral("Another client of endpoint 1 has taken the tunnel down."));
    }

    void disconnectFromElsewhereEndsTheAttempts_data()
    {
        QTest::addColumn<QByteArray>("remotes");
        QTest::addColumn<bool>("isToldWhy");
        QTest::addRow("the last one") << QByteArray("remote silent 1\n") << false;
        QTest::addRow("one of several")
            << QByteArray("remote silent 1\nremote connects 2\nremote connects 3\n") << true;
    }

    void disconnectFromElsewhereEndsTheAttempts()
    {
        QFETCH(QByteArray, remotes);
        QFETCH(bool, isToldWhy);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess holder;
        holder.begin(profile(remotes));
        QTRY_COMPARE(standins::openvpnStarts().size(), 1);
        VpnctlProcess other;
        QCOMPARE(other.run(QStringLiteral("disconnect --endpoint 1")), kDone);
        QCOMPARE(holder.exitCodeWithin(), kFailed);
        QVERIFY(!holder.lines().contains(kUp));
        QCOMPARE(holder.lines().contains(
                     QStringLiteral("Another client of endpoint 1 has taken the tunnel down.")),
                 isToldWhy);
        QCOMPARE(standins::runningOpenvpns(), 0);
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
        standins::forgetState();
    }

    void endpointThatIsNotThereIsWrongUse_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addRow("disconnect") << QStringLiteral("disconnect --endpoint 9");
        QTest::addRow("watch") << QStringLiteral("watch --endpoint 9");
        QTest::addRow("raw") << QStringLiteral("raw {} --endpoint 9");
    }

    void endpointThatIsNotThereIsWrongUse()
    {
        QFETCH(QString, command);
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(command), kWrongUse);
        QCOMPARE(vpnctl.errorLines().value(0),
                 QStringLiteral("vpnctl: The daemon has no endpoint 9."));
        daemon.kill();
        QFile::remove(shared::getIpcServiceUrl());
    }

    void watchPrintsTheAnswersOfOthers()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        VpnctlProcess vpnctl;
        vpnctl.begin(QStringLiteral("watch --endpoint 1"));
        QTRY_VERIFY(vpnctl.lines().contains(QStringLiteral("Watching endpoint 1")));
        client.connectUdp(standins::serverFor(QStringLiteral("connects")));
        QTRY_VERIFY(vpnctl.lines().contains(QStringLiteral("Connected.")));
        client.disconnectTunnel();
        QTRY_VERIFY(vpnctl.lines().contains(QStringLiteral("Disconnected.")));
        vpnctl.raise(SIGINT);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
    }

    void watchPrintsAnswersAsJson()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        Client client;
        QVERIFY(client.attachToNewEndpoint());
        VpnctlProcess vpnctl;
        vpnctl.begin(QStringLiteral("watch --endpoint 1 --json"));
        QTRY_COMPARE(vpnctl.lines(),
                     QStringList{QStringLiteral(R"({"endpoint":1,"event":"watching"})")});
        client.connectUdp(standins::serverFor(QStringLiteral("error")));
        QTRY_COMPARE(vpnctl.lines().size(), 2);
        client.disconnectTunnel();
        QTRY_COMPARE(vpnctl.lines().size(), 3);
        vpnctl.raise(SIGINT);
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(vpnctl.lines().size(), 3);
        QCOMPARE(vpnctl.errorLines(), QStringList());

        const QJsonObject failure = objectsIn(vpnctl.lines())[1];
        QCOMPARE(failure.value(QLatin1String("event")).toString(), QStringLiteral("answer"));
        QCOMPARE(failure.value(QLatin1String("command")).toString(), QStringLiteral("connect"));
        QCOMPARE(failure.value(QLatin1String("success")), QJsonValue(false));
        QCOMPARE(failure.value(QLatin1String("key")).toString(),
                 QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted"));
        QVERIFY(!failure.contains(QLatin1String("seconds"))); // somebody else's command
        const QJsonObject success = objectsIn(vpnctl.lines())[2];
        QCOMPARE(success.value(QLatin1String("command")).toString(), QStringLiteral("disconnect"));
        QCOMPARE(success.value(QLatin1String("success")), QJsonValue(true));
        QVERIFY(!success.contains(QLatin1String("text")));
    }

    // raw

    void rawSendsTheTextAndPrintsTheAnswer()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(
            vpnctl.run(QStringLiteral(R"(raw {"type":"connect","cmd":"ovpnTcp"} --json --server )")
                       + recordFor(QStringLiteral("connects"))),
            kDone);
        const QJsonObject answer = eventNamed(QStringLiteral("answer"), vpnctl.lines());
        QCOMPARE(
            answer.value(QLatin1String("message")).toString(),
            QStringLiteral(R"({"arg":"connect","cmd":"connect","status":true,"type":"openvpn"})"));
        QCOMPARE(answer.value(QLatin1String("success")), QJsonValue(true));
        QCOMPARE(standins::configurationOf(standins::openvpnStarts()[0]).split('\n').value(3),
                 QByteArray("remote connects 443"));
    }

    void rawTextThatTheDaemonDoesNotKnowIsNotAnswered()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("raw nonsense --timeout 1")), kNoAnswer);
        QCOMPARE(daemon.count(QStringLiteral("Command status  \"\"")), 1);
        QCOMPARE(vpnctl.errorLines().value(0),
                 QStringLiteral("vpnctl: The daemon did not answer the command within 1 seconds."));
    }

    void answerIsNamedByItsCommand_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("success");
        QTest::addColumn<QString>("line");
        QTest::addRow("connect") << R"({"cmd":"connect"})" << true << "Connected";
        QTest::addRow("failed connect") << R"({"cmd":"connect"})" << false << "Not connected";
        QTest::addRow("disconnect") << R"({"cmd":"disconnect"})" << true << "Disconnected";
        QTest::addRow("failed disconnect")
            << R"({"cmd":"disconnect"})" << false << "Not disconnected";
        QTest::addRow("another") << R"({"cmd":"status"})" << true << R"(Answer {"cmd":"status"})";
        QTest::addRow("another that failed")
            << R"({"cmd":"status"})" << false << R"(Answer {"cmd":"status"})";
        QTest::addRow("none") << R"({"x":1})" << true << R"(Answer {"x":1})";
        QTest::addRow("no JSON") << "pardon?" << true << "Answer pardon?";
    }

    void answerIsNamedByItsCommand()
    {
        QFETCH(QString, answer);
        QFETCH(bool, success);
        QFETCH(QString, line);
        LaterEndpoint endpoint(answer,
                               success ? OperationResult::succeeded()
                                       : OperationResult::failed(QStringLiteral("no luck")));
        QVERIFY(endpoint.listen(1));
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(QStringLiteral("raw {} --endpoint 1")), success ? kDone : kFailed);
        QCOMPARE(vpnctl.lines().size(), 1);
        const QString end = success ? QStringLiteral("\\.") : QStringLiteral(": no luck");
        const QRegularExpression expected(QStringLiteral("^%1 after [0-9]+\\.[0-9] s%2$")
                                              .arg(QRegularExpression::escape(line), end));
        QVERIFY2(expected.match(vpnctl.lines().constFirst()).hasMatch(),
                 qPrintable(vpnctl.lines().constFirst()));
    }

    void outputThatDoesNotBlockIsWaitedFor()
    {
        const QString longAnswer(1'000'000, QLatin1Char('x'));
        LaterEndpoint endpoint(longAnswer, OperationResult::succeeded());
        QVERIFY(endpoint.listen(1));
        VpnctlProcess vpnctl;
        vpnctl.makeOutputNonBlocking();
        QCOMPARE(vpnctl.run(QStringLiteral("raw {} --endpoint 1")), kDone);
        QCOMPARE(vpnctl.lines().size(), 1);
        QVERIFY(vpnctl.lines().constFirst().startsWith(QStringLiteral("Answer ") + longAnswer
                                                       + QStringLiteral(" after ")));
    }

    // JSON

    void everyJsonLineIsAnObjectWithAnEvent()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        vpnctl.begin(connectTo(QStringLiteral("connects")) + QStringLiteral(" --json"));
        QTRY_VERIFY(eventsIn(vpnctl.lines()).contains(QStringLiteral("up")));
        vpnctl.closeWriteChannel();
        QCOMPARE(vpnctl.exitCodeWithin(), kDone);
        QCOMPARE(eventsIn(vpnctl.lines()),
                 (QStringList{QStringLiteral("note"), QStringLiteral("endpoint"),
                              QStringLiteral("connecting"), QStringLiteral("answer"),
                              QStringLiteral("up"), QStringLiteral("disconnecting"),
                              QStringLiteral("answer")}));
        QCOMPARE(vpnctl.errorLines(), QStringList());
        QCOMPARE(vpnctl.lines().value(1), QStringLiteral(R"({"endpoint":1,"event":"endpoint"})"));
    }

    void jsonAnswerCarriesKeyTextAndAdvice()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(connectTo(QStringLiteral("error")) + QStringLiteral(" --json")),
                 kFailed);
        const QJsonObject answer = eventNamed(QStringLiteral("answer"), vpnctl.lines());
        QCOMPARE(answer.value(QLatin1String("key")).toString(),
                 QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted"));
        QCOMPARE(answer.value(QLatin1String("success")), QJsonValue(false));
        QCOMPARE(answer.value(QLatin1String("command")).toString(), QStringLiteral("connect"));
        QVERIFY(!answer.value(QLatin1String("text")).toString().isEmpty());
        QVERIFY(!answer.value(QLatin1String("advice")).toString().isEmpty());
    }

    void everyEventHasTheKeysOfTheManualPage()
    {
        DaemonProcess daemon;
        QVERIFY(daemon.start());
        QSet<QString> events;
        const auto compare = [&events](const QStringList &lines) {
            for (const QString &line : lines) {
                const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
                const QString event = object.value(QStringLiteral("event")).toString();
                QVERIFY2(!event.isEmpty(), qPrintable(line));
                events.insert(event);
                const QString documented = manualEntryOf(event);
                for (const QString &key : object.keys()) {
                    QVERIFY2(key == QLatin1String("event")
                                 || documented.contains(QLatin1Char('"') + key + QLatin1Char('"')),
                             qPrintable(event + QLatin1Char(' ') + key));
                }
            }
        };
        struct
        {
            QString arguments;
            int exitCode;
        } const runs[] = {
            {QStringLiteral("ping"), kDone},
            {QStringLiteral("ping --endpoint 3"), kWrongUse},
            {connectTo(QStringLiteral("connects")) + QStringLiteral(" --detach"), kDone},
            {QStringLiteral("disconnect --endpoint 1"), kDone},
            {connectTo(QStringLiteral("error")), kFailed},
            {connectTo(QStringLiteral("late-success")) + QStringLiteral(" --timeout 7"), kNoAnswer},
        };
        for (const auto &run : runs) {
            VpnctlProcess vpnctl;
            QCOMPARE(vpnctl.run(run.arguments + QStringLiteral(" --json"), 20'000), run.exitCode);
            QVERIFY(!vpnctl.lines().isEmpty());
            compare(vpnctl.lines());
            QVERIFY(!QTest::currentTestFailed());
        }
        for (const char *event : {"pong", "error", "endpoint", "connecting", "answer", "detached",
                                  "disconnecting", "waiting"})
            QVERIFY2(events.contains(QLatin1String(event)), event);
    }

    void jsonErrorCarriesTheExitCode_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("exitCode");
        QTest::addRow("no daemon") << QStringLiteral("ping --json") << kNoDaemon;
        QTest::addRow("wrong use") << QStringLiteral("dance --json") << kWrongUse;
    }

    void jsonErrorCarriesTheExitCode()
    {
        QFETCH(QString, command);
        QFETCH(int, exitCode);
        VpnctlProcess vpnctl;
        QCOMPARE(vpnctl.run(command), exitCode);
        QCOMPARE(vpnctl.errorLines(), QStringList());
        QCOMPARE(eventsIn(vpnctl.lines()), QStringList{QStringLiteral("error")});
        QCOMPARE(objectsIn(vpnctl.lines())[0].value(QLatin1String("exit")).toInt(), exitCode);
    }

private:
    static void addCommands()
    {
        QTest::addColumn<QString>("command");
        QTest::addRow("ping") << QStringLiteral("ping");
        QTest::addRow("connect") << connectTo(QStringLiteral("connects"));
        QTest::addRow("disconnect") << QStringLiteral("disconnect --endpoint 1");
        QTest::addRow("watch") << QStringLiteral("watch --endpoint 1");
        QTest::addRow("raw") << QStringLiteral("raw {}");
    }
};

QTEST_GUILESS_MAIN(VpnctlProgram)
#include "tst_vpnctl.moc"
