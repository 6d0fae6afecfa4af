#include "daemonprocess.h"
#include "frames.h"
#include "ipcurls.h"
#include "pemtexts.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QRegularExpression>
#include <QtNetwork/QLocalSocket>
#include <QtTest/QtTest>

namespace {

const QString kDisconnect = QStringLiteral(R"({"type":"openvpn","cmd":"disconnect"})");

/// The n-th block of bytes in the page about frames.
QByteArray bytesOfThePage(int n)
{
    QFile page(QStringLiteral(TALVEX_SOURCES "/docs/protocol-frames.md"));
    if (!page.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(page.fileName()));
    const QStringList blocks = QString::fromUtf8(page.readAll())
                                   .split(QStringLiteral("\n```\n"))
                                   .filter(QRegularExpression(QStringLiteral("^00 ")));
    QByteArray bytes;
    for (const QString &line : blocks.value(n).split(QLatin1Char('\n')))
        bytes += QByteArray::fromHex(line.left(47).toLatin1());
    return bytes;
}

} // namespace

/// The clients that a newcomer copies, and the page from which one of them was made.
class TestExamples : public QObject
{
    Q_OBJECT

private:
    QScopedPointer<DaemonProcess> m_daemon;
    QScopedPointer<QProcess> m_client;
    QStringList m_files; ///< for the authority, the certificate and the key

    static void addClients()
    {
        QTest::addColumn<QString>("program");
        QTest::newRow("C++") << QStringLiteral(TALVEX_MINIMAL_CLIENT);
        QTest::newRow("Python") << QStringLiteral(TALVEX_SOURCES "/examples/minimal_client.py");
    }

    void start(const QString &host)
    {
        QFETCH(QString, program);
        m_client.reset(new QProcess);
        m_client->setProcessChannelMode(QProcess::MergedChannels);
        m_client->start(program, arguments(host));
    }

    QStringList arguments(const QString &host) const
    {
        return QStringList{host, QStringLiteral("1194")} + m_files;
    }

    void fails(const QByteArray &message)
    {
        QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QProcess::NotRunning, 20'000);
        QCOMPARE(m_client->exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_client->exitCode(), 1);
        const QByteArray output = m_client->readAll();
        QVERIFY2(output.contains(message + '\n'), output.constData());
    }

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        QFile file(QStringLiteral("/var/root/ca.crt"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.write(pemtexts::certificate().toLatin1()) > 0);
        m_files = QStringList{file.fileName(), file.fileName(), file.fileName()};
        m_daemon.reset(new DaemonProcess);
        QVERIFY(m_daemon->start());
    }

    void cleanup()
    {
        m_client.reset();
        m_daemon.reset();
    }

    void holdsTheWholeConversation_data() { addClients(); }
    void holdsTheWholeConversation()
    {
        start(QStringLiteral("connects"));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        const QByteArray text = standins::configurationOf(standins::openvpnStarts()[0]);
        QVERIFY(text.contains("\nproto udp\nremote connects 1194\n"));
        QVERIFY(text.contains("<ca>\n" + pemtexts::certificate().toLatin1()));
        QTRY_COMPARE_WITH_TIMEOUT(m_client->state(), QProcess::NotRunning, 20'000);
        QCOMPARE(m_client->exitCode(), 0);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(m_client->readAll(),
                 QByteArray("{\"arg\":\"connect\",\"cmd\":\"connect\",\"status\":true,\"type\":"
                            "\"openvpn\"} true \n"
                            "{\"arg\":\"disconnect\",\"cmd\":\"disconnect\",\"status\":true,"
                            "\"type\":\"openvpn\"} true \n"));
        const int heartbeat = m_daemon->log().indexOf(QStringLiteral("Replica state is  true"));
        QVERIFY(heartbeat >= 0);
        QVERIFY(heartbeat < m_daemon->log().indexOf(QStringLiteral("Connect cmd \"ovpnUdp\"")));
    }

    void failsWhenTheTunnelDoesNotComeUp_data() { addClients(); }
    void failsWhenTheTunnelDoesNotComeUp()
    {
        start(QStringLiteral("error"));
        fails(" false warning.can_not_open_vpn_check_is_admin_granted");
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void endsWhenTheDaemonDies_data() { addClients(); }
    void endsWhenTheDaemonDies()
    {
        start(QStringLiteral("silent"));
        QTRY_COMPARE(standins::runningOpenvpns(), 1);
        m_daemon->kill();
        fails("the daemon closed the connection");
    }

    void namesAFileThatItCannotRead_data() { addClients(); }
    void namesAFileThatItCannotRead()
    {
        m_files.last() = QStringLiteral("/var/root/none.key");
        start(QStringLiteral("connects"));
        fails("cannot read /var/root/none.key");
        QCOMPARE(m_daemon->log(), QStringList());
    }

    void saysSoWithoutDaemon_data() { addClients(); }
    void saysSoWithoutDaemon()
    {
        m_daemon->kill();
        start(QStringLiteral("connects"));
        fails("the daemon is not running");
    }

    void pythonClientKeepsItsTunnelAlive()
    {
        QProcess client;
        client.start(QStringLiteral("python3"),
                     QStringList{QStringLiteral("-Bc"),
                                 QStringLiteral("import sys; sys.path.append('" TALVEX_SOURCES
                                                "/examples')\n"
                                                "import minimal_client as client\n"
                                                "client.HEARTBEAT, client.HOLD = 0.05, 60\n"
                                                "client.main()\n")}
                         + arguments(QStringLiteral("connects")));
        QTRY_VERIFY(m_daemon->count(QStringLiteral("Replica state is  true")) > 20);
        QCOMPARE(standins::runningOpenvpns(), 1);
        client.terminate();
        QVERIFY(client.waitForFinished());
    }

    void clientSendsNothingToAnotherUser_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("Python") << QStringLiteral(TALVEX_SOURCES "/examples/minimal_client.py")
                                << QByteArray("/tmp/local:TalvexFreeVpnIpcInterface belongs to "
                                              "another user than root; nothing was sent\n");
        QTest::newRow("C++") << QStringLiteral(TALVEX_MINIMAL_CLIENT)
                             << QByteArray("the socket is not root's\n");
    }

    /// Whoever is faster than the daemon can make a socket of its name.
    void clientSendsNothingToAnotherUser()
    {
        QFETCH(QString, program);
        QFETCH(QByteArray, message);
        m_daemon->kill();
        QVERIFY(QFile::remove(shared::getIpcServiceUrl()));
        QProcess other;
        other.start(QStringLiteral("setpriv"),
                    {QStringLiteral("--reuid=65534"), QStringLiteral("--clear-groups"),
                     QStringLiteral("python3"), QStringLiteral("-c"),
                     QStringLiteral("import socket\n"
                                    "server = socket.socket(socket.AF_UNIX)\n"
                                    "server.bind('%1')\n"
                                    "server.listen()\n"
                                    "print('listening', flush=True)\n"
                                    "print(server.accept()[0].recv(9), flush=True)\n")
                         .arg(shared::getIpcServiceUrl())});
        QVERIFY(other.waitForReadyRead() || other.state() == QProcess::NotRunning);
        if (other.readAllStandardOutput() != "listening\n")
            QSKIP("an ordinary user's private root has only root");
        QProcess client;
        client.start(program, arguments(QStringLiteral("connects")));
        QVERIFY(client.waitForFinished());
        QCOMPARE(client.exitCode(), 1);
        QCOMPARE(client.readAllStandardError(), message);
        QVERIFY(other.waitForFinished());
        QCOMPARE(other.readAllStandardOutput(), QByteArray("b''\n"));
    }

    void clientsSendTheFramesOfThePage()
    {
        VpnServerInformation server;
        server.name = QStringLiteral("Office");
        server.id = 7;
        server.host = QStringLiteral("192.0.2.2");
        server.ca = QStringLiteral("A");
        server.key = QStringLiteral("K");
        server.cert = QStringLiteral("C");
        server.udpPort = 1194;
        server.tcpPort = 443;
        QCOMPARE(bytesOfThePage(0).toHex(' '),
                 frames::vpnCommand(QStringLiteral(R"({"type":"connect","cmd":"ovpnUdp"})"), server)
                     .toHex(' '));
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

        QLocalSocket endpoint;
        endpoint.connectToServer(shared::getIpcProcessUrl(1));
        endpoint.write(frames::addObject(frames::kServiceInterface)
                       + frames::vpnCommand(kDisconnect));
        const QByteArray answer = bytesOfThePage(2);
        QVERIFY(!answer.isEmpty());
        QByteArray received;
        QTRY_VERIFY((received += endpoint.readAll()).endsWith(answer));
    }

    void withoutAddObjectNoAnswerComes()
    {
        QLocalSocket main;
        main.connectToServer(shared::getIpcServiceUrl());
        main.write(frames::createPrivilegedProcess());
        const QByteArray answer = bytesOfThePage(2);
        QTRY_VERIFY(QFile::exists(shared::getIpcProcessUrl(1)));
        QLocalSocket endpoint;
        endpoint.connectToServer(shared::getIpcProcessUrl(1));
        endpoint.write(frames::vpnCommand(kDisconnect));
        QTRY_COMPARE(m_daemon->linesWith(QStringLiteral("Send command service")).size(), 1);
        endpoint.write(frames::ping(frames::kServiceInterface));
        const QByteArray pong = frames::packet(11, frames::kServiceInterface);
        QByteArray received;
        QTRY_VERIFY((received += endpoint.readAll()).endsWith(pong));
        QVERIFY(!received.contains(answer));
    }

    /// With stand-ins for macOS's frameworks and tools, where the example is built at all.
    void platformLayerAnswers()
    {
        const QString program = QStringLiteral(TALVEX_EXAMPLES "/platform_layer");
        if (!QFile::exists(program))
            QSKIP("GNUstep is missing");
        QProcess example;
        example.setWorkingDirectory(QStringLiteral("/tmp"));
        example.start(program, {QStringLiteral("status")});
        QVERIFY(example.waitForFinished());
        QCOMPARE(example.readAllStandardOutput(),
                 QByteArray("installed:               no\n"
                            "running:                 yes\n"
                            "starts with the session: no\n"
                            "speaks L2TP:             yes\n"
                            "speaks PPTP:             no\n"));
        example.start(program, {QStringLiteral("kill-switch"), QStringLiteral("on")});
        QVERIFY(example.waitForFinished());
        QCOMPARE(example.readAllStandardOutput(), QByteArray("done\n"));
        QCOMPARE(standins::stateLines(QStringLiteral("ifconfig/en0")),
                 QStringList{QStringLiteral("down")});
    }
};

QTEST_GUILESS_MAIN(TestExamples)
#include "tst_examples.moc"
