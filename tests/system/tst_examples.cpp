#include "asuser.h"
#include "daemonprocess.h"
#include "files.h"
#include "frames.h"
#include "ipcurls.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "standins.h"

#include <QtNetwork/QLocalServer>
#include <QtTest/QtTest>

namespace {

const QString kExamples = TALVEX_SOURCES "/examples";
const QString kDisconnect = R"({"type":"openvpn","cmd":"disconnect"})";
const QString kHeartbeat = "Replica state is  true";

/// The n-th block of bytes in the page about frames.
QByteArray bytesOfThePage(int n)
{
    const QByteArray page = lab::contentOf(TALVEX_SOURCES "/docs/protocol-frames.md");
    const QStringList blocks =
        QString::fromUtf8(page).split("\n```\n").filter(QRegularExpression("^00 "));
    QByteArray bytes;
    for (const QString &line : blocks.value(n).split('\n'))
        bytes += QByteArray::fromHex(line.left(47).toLatin1());
    return bytes;
}

} // namespace

/// The clients that a newcomer copies, and the page from which one of them was made.
class TestExamples : public QObject
{
    Q_OBJECT

private:
    const QString m_pem = "/var/root/all.pem"; ///< authority, certificate and key
    QScopedPointer<DaemonProcess> m_daemon;

    static QMap<QString, QString> programs()
    {
        return {{"C++", TALVEX_MINIMAL_CLIENT}, {"Python", kExamples + "/minimal_client.py"}};
    }

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        lab::writeFile(m_pem, pemtexts::certificate().toLatin1());
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
    }

    void cleanup() { m_daemon.reset(); }

    void holdsTheWholeConversation_data()
    {
        QTest::addColumn<QString>("program");
        for (const QString &language : programs().keys())
            QTest::newRow(qPrintable(language)) << programs()[language];
    }

    void holdsTheWholeConversation()
    {
        QFETCH(QString, program);
        QProcess client;
        client.start(program, {"connects", "1194", m_pem, m_pem, m_pem});
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto udp\nremote connects 1194\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate().toLatin1()));
        QTRY_COMPARE_WITH_TIMEOUT(client.state(), QProcess::NotRunning, 20'000);
        QCOMPARE(client.exitCode(), 0);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(
            client.readAllStandardOutput() + client.readAllStandardError(),
            QByteArray(R"({"arg":"connect","cmd":"connect","status":true,"type":"openvpn"})"
                       " true \n"
                       R"({"arg":"disconnect","cmd":"disconnect","status":true,"type":"openvpn"})"
                       " true \n"));
        const int heartbeat = m_daemon->log().indexOf(kHeartbeat);
        QVERIFY(heartbeat >= 0);
        QVERIFY(heartbeat < m_daemon->log().indexOf("Connect cmd \"ovpnUdp\""));
    }

    void saysWhatFailed_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("keyFile");
        QTest::addColumn<QString>("daemonEnds");
        QTest::addColumn<QString>("said");
        for (const QString &language : programs().keys()) {
            const auto row = [&](const char *name, const char *host, const QString &keyFile,
                                 const char *daemonEnds, const char *said) {
                QTest::addRow("%s, %s", qPrintable(language), name)
                    << programs()[language] << host << keyFile << daemonEnds << said;
            };
            row("no tunnel", "error", m_pem, "",
                R"({"arg":"connect","cmd":"connect","status":true,"type":"openvpn"})"
                " false warning.can_not_open_vpn_check_is_admin_granted\n");
            row("no file", "connects", "/none", "", "cannot read /none\n");
            row("no daemon", "connects", m_pem, "before", "the daemon is not running\n");
            row("no daemon any more", "silent", m_pem, "meanwhile",
                "the daemon closed the connection\n");
        }
    }

    void saysWhatFailed()
    {
        QFETCH(QString, program);
        QFETCH(QString, host);
        QFETCH(QString, keyFile);
        QFETCH(QString, daemonEnds);
        QFETCH(QString, said);
        if (daemonEnds == "before")
            m_daemon->kill();
        QProcess client;
        client.start(program, {host, "1194", m_pem, m_pem, keyFile});
        if (daemonEnds == "meanwhile") {
            QTRY_COMPARE(standins::runningOpenvpns(), 1);
            m_daemon->kill();
        }
        QTRY_COMPARE_WITH_TIMEOUT(client.state(), QProcess::NotRunning, 20'000);
        QCOMPARE(client.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client.exitCode(), 1);
        const QString output = client.readAllStandardOutput() + client.readAllStandardError();
        QVERIFY2(output.startsWith(said), qPrintable(output));
        QCOMPARE(standins::openvpnStarts().size(), host == "connects" ? 0 : 1);
        if (keyFile != m_pem) // which is read before anything else
            QCOMPARE(m_daemon->log(), QStringList());
        QCOMPARE(standins::runningOpenvpns(), host == "silent" ? 1 : 0);
    }

    void sendsNothingToAnotherUser_data() { holdsTheWholeConversation_data(); }

    /// Whoever is faster than the daemon can make a socket of its name.
    void sendsNothingToAnotherUser()
    {
        QFETCH(QString, program);
        m_daemon->kill();
        QVERIFY(QFile::remove(shared::getIpcServiceUrl()));
        QLocalServer server;
        {
            const lab::AsUser as(501);
            if (!as.isActive())
                QSKIP("an ordinary user's private root has only root");
            QVERIFY(server.listen(shared::getIpcServiceUrl()));
        }
        QProcess client;
        client.start(program, {"connects", "1194", m_pem, m_pem, m_pem});
        QTRY_VERIFY(server.hasPendingConnections());
        QLocalSocket *connection = server.nextPendingConnection();
        QTRY_COMPARE(client.state(), QProcess::NotRunning);
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError(), QByteArray("the socket is not root's\n"));
        QTRY_COMPARE(connection->state(), QLocalSocket::UnconnectedState);
        QCOMPARE(connection->readAll(), QByteArray());
    }

    void pythonClientKeepsItsTunnelAlive()
    {
        QProcess client;
        client.start("python3",
                     {"-Bc",
                      "import sys; sys.path.append('" + kExamples
                          + "')\n"
                            "import minimal_client as client\n"
                            "client.HEARTBEAT, client.HOLD = 0.05, 60\n"
                            "client.main()\n",
                      "connects", "1194", m_pem, m_pem, m_pem});
        QTRY_VERIFY(m_daemon->count(kHeartbeat) > 20);
        QCOMPARE(standins::runningOpenvpns(), 1);
        client.terminate();
        QVERIFY(client.waitForFinished());
    }

    void clientsSendTheFramesOfThePage()
    {
        VpnServerInformation server;
        server.name = "Office";
        server.id = 7;
        server.host = "192.0.2.2";
        server.ca = "A";
        server.key = "K";
        server.cert = "C";
        server.udpPort = 1194;
        server.tcpPort = 443;
        QCOMPARE(bytesOfThePage(0).toHex(' '),
                 frames::vpnCommand(R"({"type":"connect","cmd":"ovpnUdp"})", server).toHex(' '));
    }

    void daemonSendsTheFramesOfThePage()
    {
        QLocalSocket main;
        main.connectToServer(shared::getIpcServiceUrl());
        main.write(frames::addObject(frames::kIpcInterface) + frames::createPrivilegedProcess());
        const QByteArray firstCall = bytesOfThePage(1);
        QVERIFY(!firstCall.isEmpty());
        QTRY_VERIFY(main.bytesAvailable() >= firstCall.size());
        QCOMPARE(main.readAll().toHex(' '), firstCall.toHex(' '));

        const QByteArray answer = bytesOfThePage(2);
        QVERIFY(!answer.isEmpty());
        QLocalSocket endpoint;
        QByteArray received;
        endpoint.connectToServer(shared::getIpcProcessUrl(1));
        endpoint.write(frames::vpnCommand(kDisconnect));
        QTRY_COMPARE(m_daemon->linesWith("Send command service").size(), 1);
        endpoint.write(frames::ping(frames::kServiceInterface));
        const QByteArray pong = frames::packet(11, frames::kServiceInterface);
        QTRY_VERIFY((received += endpoint.readAll()).endsWith(pong));
        QVERIFY2(!received.contains(answer), "an answer came without AddObject");

        endpoint.write(frames::addObject(frames::kServiceInterface)
                       + frames::vpnCommand(kDisconnect));
        QTRY_VERIFY((received += endpoint.readAll()).endsWith(answer));
    }

    /// With stand-ins for macOS's frameworks and tools, where the example is built at all.
    void platformLayerAnswers()
    {
        const QString program = TALVEX_EXAMPLES "/platform_layer";
        if (!QFile::exists(program))
            QSKIP("GNUstep is missing");
        QProcess example;
        example.setWorkingDirectory("/tmp");
        example.start(program, {"status"});
        QVERIFY(example.waitForFinished());
        QCOMPARE(example.readAllStandardOutput(),
                 QByteArray("installed: no\nrunning: yes\nstarts with the session: no\n"
                            "speaks L2TP: yes\nspeaks PPTP: no\n"));
        example.start(program, {"kill-switch", "on"});
        QVERIFY(example.waitForFinished());
        QCOMPARE(example.readAllStandardOutput(), QByteArray("done\n"));
        QCOMPARE(standins::stateLines("ifconfig/en0"), QStringList{"down"});
    }
};

QTEST_GUILESS_MAIN(TestExamples)
#include "tst_examples.moc"
