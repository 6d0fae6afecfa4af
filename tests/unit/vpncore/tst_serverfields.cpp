#include "serverfields.h"

#include "configtext.h"
#include "hostilerecords.h"
#include "logcapture.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

#include <random>

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

QVector<hostilerecords::Record> tricksOf(const QString &field)
{
    return hostilerecords::of(field, goodServer(), [](int) { return "plugin /tmp/hostile.so"; });
}

bool hasPlugin(const VpnServerInformation &server)
{
    const auto directives = configtext::directives(
        configtext::written(configtext::unchecked(OvpnConnection::Udp, server)));
    return std::any_of(directives.begin(), directives.end(),
                       [](const QByteArray &line) { return line.startsWith("plugin"); });
}

QByteArray problemOf(const VpnServerInformation &server, OvpnConnection::ConnectionType type)
{
    return configtext::problem(type, server,
                               configtext::written(configtext::generated(type, server)));
}

/// Makes records that are hostile, broken, odd or good, always the same ones for a seed.
class RecordMaker
{
    int number(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(m_random); }

    template<typename Container>
    auto pick(const Container &container)
    {
        return container[number(static_cast<int>(std::size(container)))];
    }

public:
    explicit RecordMaker(quint32 seed)
        : m_random(seed)
    {
        for (const QString &field : hostilerecords::fields())
            m_tricks += tricksOf(field);
    }

    VpnServerInformation make()
    {
        VpnServerInformation server = number(3) == 0 ? pick(m_tricks).server : goodServer();
        for (const QString &field : hostilerecords::fields()) {
            QString &text = hostilerecords::fieldOf(server, field);
            if (number(6) == 0)
                text.clear();
            for (int changes = number(2) * number(5); changes > 0; --changes)
                change(text);
        }
        if (number(5) == 0)
            server.udpPort = server.tcpPort = static_cast<qint32>(m_random());
        return server;
    }

private:
    QString piece()
    {
        static const QStringList fragments =
            QString("</ca>|</cert>|</key>|<ca>|</CA>|<|</|/ca>| |\"|'|\\|#|;|%1|%6|%7|%%|%L1|1194 "
                    "|\n|\r\n|\r|\t|"
                    "\nup /tmp/run\n|\nplugin /tmp/hostile.so\n|verb 0|compress lzo")
                .split('|');
        switch (number(4)) {
        case 0: // what a conversion could turn into something else
            return pick(
                QString("\v\f\x1a\x7f\u0085\u00a0\u00e9\u010a\u010d\u013c\u2028\u220a\uff1c")
                + QChar(0) + QChar(0xd800) + QChar(0xdc3c));
        case 1:
            return QChar(static_cast<ushort>(number(0x10000)));
        case 2:
            return QString(number(2) * 255 + 240 + number(20), pick(QString("A #\u00e9\u0416")));
        default:
            return pick(fragments);
        }
    }

    void change(QString &text)
    {
        const int position = number(text.size() + 1);
        switch (number(4)) {
        case 0:
            text.remove(position, 1 + number(20));
            break;
        case 1:
            text.insert(number(text.size() + 1), text.mid(position, number(80)));
            break;
        default:
            text.insert(position, piece());
        }
    }

    std::mt19937 m_random;
    QVector<hostilerecords::Record> m_tricks;
};

} // namespace

/// What of a record may go into the configuration. Seeds are counted up from TALVEX_SEED, by
/// default a random one; TALVEX_SEEDS says how many.
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
    void longestHostFitsIntoItsLine_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("port");
        QTest::newRow("one digit") << QString(245, 'a') << 1;
        QTest::newRow("longest port") << QString(235, 'a') << std::numeric_limits<qint32>::min();
        QTest::newRow("two bytes each") << QString(121, QChar(0xfc)) << 1194;
        QTest::newRow("one question mark each") << QString(242, QChar(0x416)) << 1194;
    }

    void longestHostFitsIntoItsLine()
    {
        QFETCH(QString, host);
        QFETCH(int, port);
        QVERIFY(fitsRemoteLine(host, port));
        QVERIFY(!fitsRemoteLine(host + 'a', port));
    }

    void textStaysInItsBlock_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("fits");
        const QString pem = pemtexts::certificate();
        QTest::newRow("nothing") << QString() << true;
        QTest::newRow("no PEM at all") << "CA TEXT" << true;
        QTest::newRow("bundle with explanations")
            << "subject=CN = M\u00fcller \u0416\nKey Attributes: <No Attributes>\n" + pem
                + "100 % of %1\n" + pem
            << true;
        QTest::newRow("no final line feed") << pem.trimmed() << true;
        QTest::newRow("control characters") << "\t\v\f\r\x1b\x7f\u0085\n" + pem << true;
        QTest::newRow("tags of others") << "</key>\n</cert>\n<ca>\n</connection>\n" << true;
        QTest::newRow("closing tag in capitals") << "</CA>\n</Ca>\n" << true;
        QTest::newRow("closing tag in two pieces") << "</c\na>\n< /ca>\n</ca >\n" << true;
        QTest::newRow("closing tag of other characters") << "\u013c/ca>\uff1c/ca>" << true;
        QTest::newRow("closing tag alone") << "</ca>" << false;
        QTest::newRow("closing tag within a line") << pem + "a</ca>b" << false;
        QTest::newRow("NUL") << pem + QChar(0) << false;
    }

    void textStaysInItsBlock()
    {
        QFETCH(QString, text);
        QFETCH(bool, fits);
        QCOMPARE(fitsInlineBlock(text, QLatin1String("ca")), fits);
    }

    void fieldThatIsLeftOutIsNamedInOneWarning_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("host") << "a b";
        QTest::newRow("ca") << "</ca>";
        QTest::newRow("cert") << "</cert>";
        QTest::newRow("key") << "</key>";
    }

    void fieldThatIsLeftOutIsNamedInOneWarning()
    {
        QFETCH(QString, text);
        const QString field = QTest::currentDataTag();
        VpnServerInformation server = goodServer();
        hostilerecords::fieldOf(server, field).clear();
        const LogCapture log;
        const QString expected = configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(log.lines().filter("Left out"), QStringList());
        hostilerecords::fieldOf(server, field) = text;
        QCOMPARE(configtext::generated(OvpnConnection::Udp, server), expected);
        QCOMPARE(log.lines(QtWarningMsg).filter("Left out"),
                 QStringList("Left out of the configuration, since it could be read as something "
                             "else: "
                             + field));
    }

    void everyTrickIsLeftOutOrHarmless_data()
    {
        QTest::addColumn<VpnServerInformation>("server");
        QTest::addColumn<bool>("isInjection");
        for (const QString &field : hostilerecords::fields()) {
            for (const auto &record : tricksOf(field))
                QTest::newRow(qPrintable(field + ": " + record.name))
                    << record.server << record.isInjection;
        }
    }

    void everyTrickIsLeftOutOrHarmless()
    {
        QFETCH(VpnServerInformation, server);
        QFETCH(bool, isInjection);
        QCOMPARE(problemOf(server, OvpnConnection::Udp), QByteArray());
        // Without the checks, each real trick gets its directive into the configuration.
        QCOMPARE(hasPlugin(server), isInjection);
    }

    void noRecordGetsADirectiveIn()
    {
        bool isGiven = false;
        quint32 seed = qEnvironmentVariable("TALVEX_SEED").toUInt(&isGiven);
        if (!isGiven)
            seed = std::random_device()();
        const int records = qEnvironmentVariable("TALVEX_RECORDS", "8000").toInt();
        // A warning for each field that is left out would be the whole output.
        const auto former =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        RecordMaker maker(seed);
        QByteArray problem;
        int made = 0;
        int refused = 0;
        int injected = 0;
        for (; made < records && problem.isEmpty(); ++made) {
            const VpnServerInformation server = maker.make();
            problem = problemOf(server, made % 2 == 0 ? OvpnConnection::Udp : OvpnConnection::Tcp);
            refused += !fitsRemoteLine(server.host, server.udpPort);
            injected += hasPlugin(server);
        }
        qInstallMessageHandler(former);
        qInfo("TALVEX_SEED=%u: %d records, %d hosts refused, %d injected", seed, made, refused,
              injected);
        QVERIFY2(problem.isEmpty(), problem.constData());
        QVERIFY(refused > made / 10 && refused < made * 9 / 10 && injected > made / 20);
    }

    void whatIsWrongWithAFileIsNoticed()
    {
        const VpnServerInformation server = goodServer();
        QByteArray file = configtext::written(configtext::generated(OvpnConnection::Udp, server));
        file.replace("remote-cert-tls server\n", "");
        QVERIFY(!configtext::problem(OvpnConnection::Udp, server, file).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestServerFields)
#include "tst_serverfields.moc"
