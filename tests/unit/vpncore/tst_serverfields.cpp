#include "serverfields.h"

#include "configtext.h"
#include "hostilerecords.h"
#include "logcapture.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

using vpncore::fitsInlineBlock;
using vpncore::fitsRemoteLine;
using vpncore::OvpnConnection;

namespace {

VpnServerInformation goodServer()
{
    VpnServerInformation server;
    server.host = "vpn.example.net";
    server.ca = pemtexts::certificate();
    server.cert = "subject=CN = client\n\n" + pemtexts::certificate(QString(64, 'Q'));
    server.key = pemtexts::key();
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

} // namespace

/// What of a record may go into the configuration.
class TestServerFields : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hostIsOneWordOfItsLine_data()
    {
        QTest::addColumn<bool>("fits");
        for (const char *host :
             {"", "VPN-1.a_b.example.net.", "192.0.2.2", "::ffff:192.0.2.2", "fe80::1%en0",
              "[2001:db8::2]", "%1%2%3%4%5%6%7", "b\u00fccher", "<vpn>/udp!$&()*+,=?@^`{|}~",
              "\u0416\u010a\u2028\u2003\U0001f600"})
            QTest::newRow(host) << true;
        for (const char *host : {"vpn\nup", "vpn\r", "vpn\t1194", "vpn\v\f", "\x1bvpn", "vpn\x7f",
                                 "vpn\u0085", "vpn\u009f", "vpn example", " vpn", "vpn ",
                                 "vpn\u00a0", "vpn\"", "'vpn", "vpn\\", "#vpn", "vpn;"})
            QTest::newRow(host) << false;
    }

    void hostIsOneWordOfItsLine()
    {
        QFETCH(bool, fits);
        QCOMPARE(fitsRemoteLine(QTest::currentDataTag(), 1194), fits);
        QVERIFY(!fitsRemoteLine(QTest::currentDataTag() + QString(QChar::Null), 1194));
    }

    /// "remote ", a blank, the port and a line feed take the rest of 255 bytes.
    void longestHostFitsIntoItsLine()
    {
        const auto isLongest = [](const QString &host, int port) {
            return fitsRemoteLine(host, port) && !fitsRemoteLine(host + 'a', port);
        };
        QVERIFY(isLongest(QString(245, 'a'), 1));
        QVERIFY(isLongest(QString(235, 'a'), std::numeric_limits<qint32>::min()));
        QVERIFY(isLongest(QString(121, QChar(0xfc)), 1194)); // two bytes each
        QVERIFY(isLongest(QString(242, QChar(0x416)), 1194)); // one question mark each
    }

    void textStaysInItsBlock_data()
    {
        QTest::addColumn<bool>("fits");
        for (const char *text :
             {"", "CA TEXT", "CN = M\u00fcller \u0416\nKey Attributes: <None>\n100 % of %1\n",
              "\t\v\f\r\x1b\x7f\u0085\n", "</key>\n</cert>\n<ca>\n</connection>\n",
              "</CA>\n</Ca>\n", "</c\na>\n< /ca>\n</ca >\n", "\u013c/ca>\uff1c/ca>"})
            QTest::newRow(text) << true;
        for (const char *text : {"</ca>", "a</ca>b"})
            QTest::newRow(text) << false;
    }

    void textStaysInItsBlock()
    {
        QFETCH(bool, fits);
        const QString text = QTest::currentDataTag();
        QCOMPARE(fitsInlineBlock(text, QLatin1String("ca")), fits);
        QVERIFY(!fitsInlineBlock(text + QChar(QChar::Null), QLatin1String("ca")));
    }

    void fieldThatIsLeftOutIsNamedInOneWarning()
    {
        const LogCapture log;
        QStringList warnings;
        for (const QString &field : hostilerecords::fields()) {
            VpnServerInformation server = goodServer();
            hostilerecords::fieldOf(server, field).clear();
            const QString expected = configtext::generated(OvpnConnection::Udp, server);
            hostilerecords::fieldOf(server, field) = field == "host" ? "a b" : "</" + field + '>';
            QCOMPARE(configtext::generated(OvpnConnection::Udp, server), expected);
            warnings.append("Left out of the configuration, since it could be read as something "
                            "else: "
                            + field);
            QCOMPARE(log.lines(QtWarningMsg).filter("Left out"), warnings);
        }
    }

    void everyTrickIsLeftOutOrHarmless_data()
    {
        QTest::addColumn<VpnServerInformation>("server");
        QTest::addColumn<bool>("isInjection");
        const auto plugin = [](int) { return "plugin /tmp/hostile.so"; };
        for (const QString &field : hostilerecords::fields()) {
            for (const auto &record : hostilerecords::of(field, goodServer(), plugin))
                QTest::newRow(qPrintable(field + ": " + record.name))
                    << record.server << record.isInjection;
        }
    }

    void everyTrickIsLeftOutOrHarmless()
    {
        QFETCH(VpnServerInformation, server);
        QFETCH(bool, isInjection);
        constexpr auto udp = OvpnConnection::Udp;
        const QByteArray file = configtext::written(configtext::generated(udp, server));
        QCOMPARE(configtext::problem(udp, server, file), QByteArray());
        // Without the checks, each real trick gets its directive into the configuration.
        const QByteArray unchecked = configtext::written(configtext::unchecked(udp, server));
        const QByteArrayList directives = configtext::directives(unchecked);
        QCOMPARE(directives.join('\n').contains("\nplugin"), isInjection);
        QCOMPARE(configtext::problem(udp, server, unchecked).isEmpty(), unchecked == file);
    }
};

QTEST_GUILESS_MAIN(TestServerFields)
#include "tst_serverfields.moc"
