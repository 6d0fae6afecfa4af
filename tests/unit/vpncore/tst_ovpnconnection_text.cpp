#include "ovpnconnection.h"

#include "configtext.h"
#include "logcapture.h"
#include "macplatform.h"
#include "ovpntemplate.h"

#include <QtTest/QtTest>

using vpncore::OvpnConnection;

using ConnectionType = OvpnConnection::ConnectionType;

Q_DECLARE_METATYPE(ConnectionType)

namespace {

constexpr auto kTcp = OvpnConnection::Tcp;
constexpr auto kUdp = OvpnConnection::Udp;

/// @return a type that is neither of the two there are.
ConnectionType other()
{
    volatile int number = 2; // hides from the compiler that no such type has a name
    return static_cast<ConnectionType>(number);
}

} // namespace

/// The configuration texts of a connection.
class TestOvpnConnectionText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// In which a number has dots between its thousands, unless it is written for a machine.
    void initTestCase() { QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany)); }

    void templateIsFilled_data()
    {
        QTest::addColumn<ConnectionType>("type");
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("protocol");
        QTest::addColumn<int>("port");
        QTest::newRow("TCP") << kTcp << 0 << "tcp" << 443;
        QTest::newRow("UDP") << kUdp << 1 << "udp" << 1194;
        QTest::newRow("neither is UDP with the TCP port") << other() << 2 << "udp" << 443;
        QTest::newRow("lowest port") << kUdp << 1 << "udp" << std::numeric_limits<qint32>::min();
    }

    void templateIsFilled()
    {
        QFETCH(ConnectionType, type);
        QFETCH(int, number);
        QFETCH(QString, protocol);
        QFETCH(int, port);
        VpnServerInformation server;
        server.host = "vpn.example.test";
        server.ca = "CA\n";
        server.cert = "CERT";
        server.key = "KEY %1";
        server.udpPort = server.tcpPort = 1;
        (type == kUdp ? server.udpPort : server.tcpPort) = port;
        QString expected = vpncore::ovpnTemplate();
        expected.replace("%1", protocol).replace("%2", server.host).replace("%3", server.ca);
        expected.replace("%4", server.cert).replace("%5", server.key);
        expected.replace("%6", QString::number(port));
        expected.replace("%7", vpncore::MacPlatform::resourcesDir());
        QCOMPARE(configtext::generated(type, server), expected);
        QCOMPARE(int(type), number);
        QCOMPARE(OvpnConnection::generateConnectionTypeString(type), protocol.toUpper());
    }

    void emptyRecordIsNoFailure()
    {
        auto type = kTcp;
        QString text = "previous content";
        const OperationResult result = OvpnConnection().generateConfigText(type, {}, text);
        QCOMPARE(type, kTcp);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, true);
        QCOMPARE(result.message, QString());
        QVERIFY(text.startsWith("client \ndev tun \nproto tcp\nremote  0\n"));
        QVERIFY(text.endsWith("\n<ca>\n\n</ca>\n\n<cert>\n\n</cert>\n\n<key>\n\n</key>\n"));
    }

    void protocolIsCorrected_data()
    {
        QTest::addColumn<ConnectionType>("type");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *text, ConnectionType type, const QString &expected) {
            QTest::newRow(text) << type << expected;
        };
        row("proto udp\nproto UDP\nproto udp\n", kTcp, "proto tcp\nproto UDP\nproto tcp\n");
        row("proto tcp\nproto TCP\n#proto tcp-client", kUdp,
            "proto udp\nproto TCP\n#proto udp-client");
        row("proto tcp\nproto udp\n", kTcp, "proto tcp\nproto tcp\n");
        for (const char *text : {"proto tcp\n", "proto  udp\nproto\tudp\n", "proto UDP\n", "\n"})
            row(text, kTcp, text);
        row("proto udp\nproto TCP\n", kUdp, "proto udp\nproto TCP\n");
        row("proto udp\nproto tcp\n", other(), "proto udp\nproto tcp\n");
    }

    void protocolIsCorrected()
    {
        QFETCH(ConnectionType, type);
        QFETCH(QString, expected);
        QString text = QTest::currentDataTag();
        const QStringList logged(type == kTcp ? "TCP" : "UDP");
        const LogCapture log;
        OvpnConnection::correctConnectionTypeInConfigText(text, type);
        QCOMPARE(text, expected);
        QCOMPARE(log.lines(QtDebugMsg), text == QTest::currentDataTag() ? QStringList() : logged);
    }
};

QTEST_GUILESS_MAIN(TestOvpnConnectionText)
#include "tst_ovpnconnection_text.moc"
