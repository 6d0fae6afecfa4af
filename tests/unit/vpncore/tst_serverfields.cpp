#include "serverfields.h"

#include "configtext.h"
#include "hostilerecords.h"
#include "logcapture.h"
#include "openvpnparser.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

using vpncore::fitsInlineBlock;
using vpncore::fitsRemoteLine;
using vpncore::OvpnConnection;

namespace {

VpnServerInformation goodServer()
{
    VpnServerInformation server;
    server.host = QStringLiteral("vpn.example.net");
    server.ca = pemtexts::certificate(QStringLiteral("Y2E="));
    server.cert = pemtexts::certificate(QStringLiteral("Y2VydA=="));
    server.key = pemtexts::key();
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

} // namespace

/// What of a record may go into the configuration, and what is left out.
class TestServerFields : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hostIsOneWordOfItsLine_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("fits");
        const auto row = [](const QString &host, bool fits, const char *name = nullptr) {
            QTest::newRow(name ? name : qPrintable(host)) << host << fits;
        };
        row({}, true, "nothing");
        row(QStringLiteral("a"), true);
        row(QStringLiteral("VPN-1.a_b.example.net."), true);
        row(QStringLiteral("192.0.2.2"), true);
        row(QStringLiteral("::ffff:192.0.2.2"), true);
        row(QStringLiteral("fe80::1%en0"), true);
        row(QStringLiteral("[2001:db8::2]"), true);
        row(QStringLiteral("%1%2%3%4%5%6%7"), true);
        row(QStringLiteral("<vpn>/udp!$&()*+,=?@^`{|}~"), true, "other signs");
        row(QStringLiteral("b\u00fccher.example"), true, "umlaut");
        row(QStringLiteral("\u0416\u010a\u2028\u2003\U0001f600"), true, "beyond Latin-1");

        row(QStringLiteral("vpn\nup"), false, "line feed");
        row(QStringLiteral("vpn\r"), false, "carriage return");
        row(QStringLiteral("vpn\t1194"), false, "tab");
        row(QStringLiteral("vpn\v\f"), false, "vertical tab and form feed");
        row(QStringLiteral("vpn") + QChar(0), false, "NUL");
        row(QStringLiteral("\x1bvpn"), false, "escape");
        row(QStringLiteral("vpn\x7f"), false, "delete");
        row(QStringLiteral("vpn") + QChar(0x85), false, "next line (0x85)");
        row(QStringLiteral("vpn") + QChar(0x9f), false, "last control character");
        row(QStringLiteral("vpn example"), false, "blank");
        row(QStringLiteral(" vpn"), false, "leading blank");
        row(QStringLiteral("vpn "), false, "trailing blank");
        row(QStringLiteral("vpn") + QChar(0xa0), false, "no-break space");
        row(QStringLiteral("vpn\""), false, "double quote");
        row(QStringLiteral("'vpn"), false, "single quote");
        row(QStringLiteral("vpn\\"), false, "backslash");
        row(QStringLiteral("#vpn"), false, "number sign");
        row(QStringLiteral("vpn;"), false, "semicolon");
    }

    void hostIsOneWordOfItsLine()
    {
        QFETCH(QString, host);
        QFETCH(bool, fits);
        QCOMPARE(fitsRemoteLine(host, 1194), fits);
    }

    /// "remote ", a blank, the port and a line feed take the rest of 255 bytes.
    void longestHostFitsIntoItsLine_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("port");
        QTest::newRow("one digit") << QString(245, QLatin1Char('a')) << 1;
        QTest::newRow("four digits") << QString(242, QLatin1Char('a')) << 1194;
        QTest::newRow("longest port")
            << QString(235, QLatin1Char('a')) << std::numeric_limits<qint32>::min();
        QTest::newRow("two bytes each") << QString(121, QChar(0xfc)) << 1194;
        QTest::newRow("one question mark each") << QString(242, QChar(0x416)) << 1194;
    }

    void longestHostFitsIntoItsLine()
    {
        QFETCH(QString, host);
        QFETCH(int, port);
        VpnServerInformation server = goodServer();
        server.host = host;
        server.udpPort = port;
        const auto file = [&server] {
            return configtext::written(configtext::generated(OvpnConnection::Udp, server));
        };
        QVERIFY(file().contains("remote " + configtext::written(host) + ' '
                                + QByteArray::number(port) + '\n'));
        QCOMPARE(configtext::problem(OvpnConnection::Udp, server, file()), QByteArray());
        server.host += QLatin1Char('a');
        QVERIFY(file().contains("remote  " + QByteArray::number(port) + '\n'));
        const QByteArray unchecked =
            configtext::written(configtext::unchecked(OvpnConnection::Udp, server));
        QVERIFY(configtext::problem(OvpnConnection::Udp, server, unchecked).contains("unreadable"));
    }

    void textStaysInItsBlock_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("fits");
        const auto row = [](const char *name, const QString &text, bool fits) {
            QTest::newRow(name) << text << fits;
        };
        const QString pem = pemtexts::certificate();
        row("nothing", {}, true);
        row("no PEM at all", QStringLiteral("CA TEXT"), true);
        row("one block", pem, true);
        row("bundle with explanations",
            QStringLiteral("subject=CN = M\u00fcller \u0416\nKey Attributes: <No Attributes>\n")
                + pem + QStringLiteral("100 % of %1\n") + pem,
            true);
        row("CRLF", QString(pem).replace(QStringLiteral("\n"), QStringLiteral("\r\n")), true);
        row("no final line feed", pem.trimmed(), true);
        row("control characters", QStringLiteral("\t\v\f\x1b\x7f\u0085\n") + pem, true);
        row("long line", QString(1'000, QLatin1Char('A')) + QLatin1Char('\n') + pem, true);
        row("tags of others", QStringLiteral("</key>\n</cert>\n<ca>\n</connection>\n") + pem, true);
        row("closing tag in capitals", QStringLiteral("</CA>\n</Ca>\n"), true);
        row("closing tag in two pieces", QStringLiteral("</c\na>\n< /ca>\n</ca >\n"), true);
        row("closing tag of other characters", QStringLiteral("\u013c/ca>\uff1c/ca>"), true);

        row("closing tag alone", QStringLiteral("</ca>"), false);
        row("closing tag on a line", pem + QStringLiteral("</ca>\n"), false);
        row("closing tag within a line", QStringLiteral("a</ca>b"), false);
        row("closing tag after a piece", QString(255, QLatin1Char('A')) + QStringLiteral("</ca>"),
            false);
        row("NUL", pem + QChar(0), false);
        row("NUL in front", QChar(0) + pem, false);
    }

    void textStaysInItsBlock()
    {
        QFETCH(QString, text);
        QFETCH(bool, fits);
        QCOMPARE(fitsInlineBlock(text, QLatin1String("ca")), fits);
        VpnServerInformation server = goodServer();
        server.ca = text;
        const QString config = configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(config.count(QStringLiteral("\n<ca>\n%1\n</ca>\n").arg(text)), fits ? 1 : 0);
        QCOMPARE(config.count(QStringLiteral("\n<ca>\n\n</ca>\n")),
                 fits && !text.isEmpty() ? 0 : 1);
    }

    void fieldThatIsLeftOutIsNamedInOneWarning_data()
    {
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("text");
        QTest::newRow("host") << QStringLiteral("host") << QStringLiteral("a b");
        QTest::newRow("ca") << QStringLiteral("ca") << QStringLiteral("</ca>");
        QTest::newRow("cert") << QStringLiteral("cert") << QStringLiteral("</cert>");
        QTest::newRow("key") << QStringLiteral("key") << QStringLiteral("</key>");
    }

    void fieldThatIsLeftOutIsNamedInOneWarning()
    {
        QFETCH(QString, field);
        QFETCH(QString, text);
        VpnServerInformation server = goodServer();
        hostilerecords::fieldOf(server, field).clear();
        LogCapture log;
        const QString expected = configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(log.lines().filter(QStringLiteral("Left out")), QStringList());
        hostilerecords::fieldOf(server, field) = text;
        QCOMPARE(configtext::generated(OvpnConnection::Udp, server), expected);
        QCOMPARE(log.lines(QtWarningMsg).filter(QStringLiteral("Left out")),
                 QStringList{QStringLiteral("Left out of the configuration, since it could be read "
                                            "as something else: ")
                             + field});
    }

    void textsThatLookLikePlacesToFillAreNotFilled()
    {
        VpnServerInformation server = goodServer();
        server.host = server.ca = server.cert = server.key = QStringLiteral("%1%2%3%4%5%6%7");
        const QString text = configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(text.count(QStringLiteral("%1%2%3%4%5%6%7")), 4);
        QVERIFY(text.contains(QStringLiteral("\nremote %1%2%3%4%5%6%7 1194\n")));
    }

    void everyTrickIsLeftOutOrHarmless_data()
    {
        QTest::addColumn<VpnServerInformation>("server");
        QTest::addColumn<bool>("isInjection");
        const auto directive = [](int) { return QStringLiteral("plugin /tmp/hostile.so"); };
        for (const QString &field : hostilerecords::fields()) {
            for (const auto &record : hostilerecords::of(field, goodServer(), directive))
                QTest::newRow(qPrintable(field + QStringLiteral(": ") + record.name))
                    << record.server << record.isInjection;
        }
    }

    void everyTrickIsLeftOutOrHarmless()
    {
        QFETCH(VpnServerInformation, server);
        QFETCH(bool, isInjection);
        const QByteArray file =
            configtext::written(configtext::generated(OvpnConnection::Udp, server));
        QCOMPARE(configtext::problem(OvpnConnection::Udp, server, file), QByteArray());

        // Without the checks, a trick that is one gets its directive in.
        const QByteArray unchecked =
            configtext::written(configtext::unchecked(OvpnConnection::Udp, server));
        bool isInjected = false;
        for (const auto &directive : openvpnparser::parse(unchecked))
            isInjected = isInjected || directive.words.first() == "plugin";
        QCOMPARE(isInjected, isInjection);
    }
};

QTEST_GUILESS_MAIN(TestServerFields)
#include "tst_serverfields.moc"
