#include "serverfields.h"

#include "configtext.h"
#include "hostilerecords.h"
#include "logcapture.h"
#include "openvpnparser.h"

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using vpncore::isHost;
using vpncore::isPem;
using vpncore::OvpnConnection;

namespace {

constexpr int kOpenSslLimitMs = 50'000;

const QString kWarning =
    QStringLiteral("Left out of the configuration, since it could be read as something else: %1");

/// Runs openssl in a folder of its own, and says so when it fails.
class OpenSsl
{
public:
    /// @return the content of @p file afterwards.
    QString make(const QString &file, const QStringList &arguments)
    {
        QProcess openssl;
        openssl.setWorkingDirectory(m_folder.path());
        openssl.start(QStringLiteral("openssl"), arguments);
        if (!openssl.waitForFinished(kOpenSslLimitMs) || openssl.exitCode() != 0)
            qFatal("openssl %s: %s", qPrintable(arguments.join(QLatin1Char(' '))),
                   openssl.readAllStandardError().constData());
        return read(file);
    }

    QString read(const QString &file) const
    {
        QFile opened(m_folder.filePath(file));
        if (!opened.open(QIODevice::ReadOnly))
            qFatal("openssl made no %s", qPrintable(file));
        return QString::fromUtf8(opened.readAll());
    }

private:
    QTemporaryDir m_folder;
};

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

QString block(const QString &body)
{
    return QStringLiteral("-----BEGIN CERTIFICATE-----\n%1\n-----END CERTIFICATE-----\n").arg(body);
}

VpnServerInformation goodServer()
{
    VpnServerInformation server;
    server.host = QStringLiteral("vpn.example.net");
    server.ca = block(QStringLiteral("Y2E="));
    server.cert = block(QStringLiteral("Y2VydA=="));
    server.key = block(QStringLiteral("a2V5"));
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

} // namespace

/// What of a record may go into the configuration, and what is left out.
class ServerFields : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void plainHostIsAHost_data()
    {
        QTest::addColumn<QString>("host");
        const auto row = [](const char *name, const QString &host) { QTest::newRow(name) << host; };
        row("name", QStringLiteral("vpn.example.net"));
        row("name of one label", QStringLiteral("localhost"));
        row("name in capitals", QStringLiteral("VPN.EXAMPLE.NET"));
        row("name with hyphens and underscores", QStringLiteral("a-b_c.example.net"));
        row("name with a final dot", QStringLiteral("vpn.example.net."));
        row("internationalised name", QStringLiteral("xn--bcher-kva.example"));
        row("IPv4 address", QStringLiteral("192.0.2.2"));
        row("IPv6 address", QStringLiteral("2001:db8::2"));
        row("IPv6 address with IPv4 part", QStringLiteral("::ffff:192.0.2.2"));
        row("one letter", QStringLiteral("a"));
        row("longest that fits", QString(vpncore::kLongestHost, QLatin1Char('a')));
    }

    void plainHostIsAHost()
    {
        QFETCH(QString, host);
        QVERIFY(isHost(host));
    }

    void anythingElseIsNoHost_data()
    {
        QTest::addColumn<QString>("host");
        const auto row = [](const char *name, const QString &host) { QTest::newRow(name) << host; };
        row("nothing", QString());
        row("blank", QStringLiteral("vpn example"));
        row("leading blank", QStringLiteral(" vpn"));
        row("trailing blank", QStringLiteral("vpn "));
        row("tab", QStringLiteral("vpn\t1194"));
        row("line feed", QStringLiteral("vpn\n"));
        row("carriage return", QStringLiteral("vpn\r"));
        row("NUL", QStringLiteral("vpn") + QChar(0));
        row("double quote", QStringLiteral("\"vpn"));
        row("single quote", QStringLiteral("'vpn"));
        row("backslash", QStringLiteral("vpn\\"));
        row("comment", QStringLiteral("vpn#"));
        row("semicolon", QStringLiteral("vpn;"));
        row("place to fill", QStringLiteral("%6"));
        row("tag", QStringLiteral("<connection>"));
        row("slash", QStringLiteral("vpn/udp"));
        row("brackets", QStringLiteral("[2001:db8::2]"));
        row("zone", QStringLiteral("fe80::1%en0"));
        row("Latin-1 letter", QStringLiteral("vp") + QChar(0xf1));
        row("letter that only ends in 'a'", QStringLiteral("vpn") + QChar(0x161));
        row("character that only ends in a line feed", QStringLiteral("vpn") + QChar(0x10a));
        row("full-width letter", QStringLiteral("vpn") + QChar(0xff41));
        row("Arabic digit", QStringLiteral("vpn") + QChar(0x661));
        row("half a surrogate pair", QStringLiteral("vpn") + QChar(0xd800));
        row("one more than fits", QString(vpncore::kLongestHost + 1, QLatin1Char('a')));
    }

    void anythingElseIsNoHost()
    {
        QFETCH(QString, host);
        QVERIFY(!isHost(host));
    }

    void longestHostFitsIntoOnePieceWithTheLongestPort()
    {
        VpnServerInformation server = goodServer();
        server.host = QString(vpncore::kLongestHost, QLatin1Char('a'));
        server.udpPort = std::numeric_limits<qint32>::min();
        const QByteArray file =
            configtext::written(configtext::generated(OvpnConnection::Udp, server));
        QVERIFY(file.contains("remote " + server.host.toLatin1() + " -2147483648\n"));
        QCOMPARE(configtext::problem(OvpnConnection::Udp, server, file), QByteArray());
    }

    void whatOpenSslWritesIsPem_data()
    {
        QTest::addColumn<QString>("pem");
        const auto row = [](const char *name, const QString &pem) { QTest::newRow(name) << pem; };
        OpenSsl openssl;
        const QString key = QStringLiteral("ca.key");
        const QString cert = QStringLiteral("ca.crt");
        openssl.make(key,
                     words("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -noenc "
                           "-days 2 -subj /CN=Test/O=<Mail<me@example.net> -keyout ca.key "
                           "-out ca.crt"));
        row("certificate", openssl.read(cert));
        row("key", openssl.read(key));
        row("certificate with explanation",
            openssl.make(QStringLiteral("text.crt"), words("x509 -in ca.crt -text -out text.crt")));
        row("certificate with trust",
            openssl.make(QStringLiteral("trusted.crt"),
                         words("x509 -in ca.crt -trustout -out trusted.crt")));
        row("EC key with parameters",
            openssl.make(QStringLiteral("ec.key"),
                         words("ecparam -name prime256v1 -genkey -out ec.key")));
        row("encrypted key with headers",
            openssl.make(QStringLiteral("headers.key"),
                         words("ec -in ca.key -aes256 -passout pass:secret -out headers.key")));
        row("encrypted PKCS#8 key",
            openssl.make(QStringLiteral("pkcs8.key"),
                         words("pkcs8 -topk8 -in ca.key -passout pass:secret -out pkcs8.key")));
        row("RSA key",
            openssl.make(QStringLiteral("rsa.key"),
                         words("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "
                               "rsa.key")));
        openssl.make(QStringLiteral("all.p12"),
                     words("pkcs12 -export -in ca.crt -inkey ca.key -passout pass:secret -out "
                           "all.p12"));
        row("bundle out of a PKCS#12 file",
            openssl.make(QStringLiteral("all.pem"),
                         words("pkcs12 -in all.p12 -passin pass:secret -noenc -out all.pem")));
        row("bundle of two", openssl.read(cert) + openssl.read(cert));
        row("bundle of two with explanations",
            openssl.read(QStringLiteral("text.crt")) + openssl.read(QStringLiteral("text.crt")));
        row("CRLF",
            openssl.read(QStringLiteral("text.crt"))
                .replace(QStringLiteral("\n"), QStringLiteral("\r\n")));
        row("no final line feed", openssl.read(cert).trimmed());
    }

    void whatOpenSslWritesIsPem()
    {
        QFETCH(QString, pem);
        QVERIFY(pem.contains(QStringLiteral("-----BEGIN ")));
        QVERIFY(isPem(pem));
    }

    void whatOpenSslWritesGetsIntoTheConfigurationUnchanged_data()
    {
        whatOpenSslWritesIsPem_data();
    }

    void whatOpenSslWritesGetsIntoTheConfigurationUnchanged()
    {
        QFETCH(QString, pem);
        VpnServerInformation server = goodServer();
        server.ca = server.cert = server.key = pem;
        LogCapture log;
        const QString text = configtext::generated(OvpnConnection::Udp, server);
        for (const char *tag : {"ca", "cert", "key"}) {
            const QString block =
                QStringLiteral("\n<%1>\n%2\n</%1>\n").arg(QString::fromLatin1(tag), pem);
            QCOMPARE(text.count(block), 1);
        }
        QCOMPARE(log.lines().filter(QStringLiteral("Left out")), QStringList());
    }

    void blocksWithAnyTextAroundThemArePem_data()
    {
        QTest::addColumn<QString>("pem");
        const auto row = [](const char *name, const QString &pem) { QTest::newRow(name) << pem; };
        const QString good = block(QStringLiteral("QUJD"));
        row("empty block", block({}));
        row("blanks at the ends of lines", block(QStringLiteral("QUJD  \t")));
        row("percent signs", QStringLiteral("100 % of %1\n") + good);
        row("letters of Latin-1", QStringLiteral("issuer=M\u00fcller\n") + good);
        row("letters beyond Latin-1", QStringLiteral("issuer=\u0416\n") + good);
        row("long explanation", QString(1000, QLatin1Char('A')) + QLatin1Char('\n') + good);
        row("explanation with a less-than sign", QStringLiteral("Mail <me@example.net>\n") + good);
    }

    void blocksWithAnyTextAroundThemArePem()
    {
        QFETCH(QString, pem);
        QVERIFY(isPem(pem));
    }

    void anythingElseIsNoPem_data()
    {
        QTest::addColumn<QString>("pem");
        const auto row = [](const char *name, const QString &pem) { QTest::newRow(name) << pem; };
        const QString good = block(QStringLiteral("QUJD"));
        const QString begin = QStringLiteral("-----BEGIN CERTIFICATE-----\n");
        const QString end = QStringLiteral("-----END CERTIFICATE-----\n");
        row("nothing", QString());
        row("text without a block", QStringLiteral("just a text\n"));
        row("only a beginning", begin);
        row("only an end", end);
        row("beginning without an end", good + begin);
        row("end without a beginning", good + end);
        row("end with another label", begin + QStringLiteral("QUJD\n-----END PRIVATE KEY-----\n"));
        row("beginning within a block", begin + good);
        row("file name", QStringLiteral("/etc/shadow"));
        row("inline marker", QStringLiteral("[inline]"));
        row("directive within a block", block(QStringLiteral("up /tmp/run")));
        row("comment within a block", block(QStringLiteral("#")));
        row("blank within a line", block(QStringLiteral("QUJD QUJD")));
        row("padding within a line", block(QStringLiteral("QU=JD")));
        row("three characters of padding", block(QStringLiteral("Q===")));
        row("Latin-1 letter within a block", block(QStringLiteral("QUJ\u00c4")));
        row("letter beyond Latin-1 within a block", block(QStringLiteral("QUJ\u0416")));
        row("less-than sign in a header", block(QStringLiteral("Comment: <")));
        row("closing tag", good + QStringLiteral("</ca>\n"));
        row("closing tag of another block", good + QStringLiteral("</cert>\n"));
        row("closing tag in capitals", good + QStringLiteral("</CA>\n"));
        row("closing tag after blanks", good + QStringLiteral(" \t</ca>\n"));
        row("closing tag in a label",
            QStringLiteral("-----BEGIN </ca>-----\nQUJD\n-----END </ca>-----\n"));
        row("closing tag after one piece",
            QString(255, QLatin1Char('A')) + QStringLiteral("</ca>\n") + good);
        row("NUL", good + QChar(0));
        row("NUL in front", QChar(0) + good);
        row("vertical tab", QStringLiteral("A\v\n") + good);
        row("form feed", QStringLiteral("A\f\n") + good);
        row("escape", QStringLiteral("A\x1b\n") + good);
        row("delete", QStringLiteral("A\x7f\n") + good);
        row("next line (0x85)", QStringLiteral("A") + QChar(0x85) + QLatin1Char('\n') + good);
    }

    void anythingElseIsNoPem()
    {
        QFETCH(QString, pem);
        QVERIFY(!isPem(pem));
    }

    void fieldThatIsLeftOutIsNamedInOneWarning_data()
    {
        QTest::addColumn<QString>("field");
        for (const QString &field : hostilerecords::fields())
            QTest::newRow(qPrintable(field)) << field;
    }

    void fieldThatIsLeftOutIsNamedInOneWarning()
    {
        QFETCH(QString, field);
        VpnServerInformation server = goodServer();
        hostilerecords::fieldOf(server, field) = QStringLiteral("</ca>");
        LogCapture log;
        configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(log.lines(QtWarningMsg).filter(QStringLiteral("Left out")),
                 QStringList{kWarning.arg(field)});
    }

    void fieldThatIsLeftOutTakesNoOtherWithIt_data()
    {
        fieldThatIsLeftOutIsNamedInOneWarning_data();
    }

    void fieldThatIsLeftOutTakesNoOtherWithIt()
    {
        QFETCH(QString, field);
        VpnServerInformation server = goodServer();
        hostilerecords::fieldOf(server, field) = QStringLiteral("</ca>");
        VpnServerInformation expected = server;
        hostilerecords::fieldOf(expected, field).clear();
        QCOMPARE(configtext::generated(OvpnConnection::Udp, server),
                 configtext::generated(OvpnConnection::Udp, expected));
    }

    void emptyFieldIsWorthNoWarning_data() { fieldThatIsLeftOutIsNamedInOneWarning_data(); }

    void emptyFieldIsWorthNoWarning()
    {
        QFETCH(QString, field);
        VpnServerInformation server = goodServer();
        hostilerecords::fieldOf(server, field).clear();
        LogCapture log;
        configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(log.lines().filter(QStringLiteral("Left out")), QStringList());
    }

    void textsThatLookLikePlacesToFillAreNotFilled()
    {
        VpnServerInformation server = goodServer();
        server.ca.prepend(QStringLiteral("%1 %2 %3 %4 %5 %6 %7\n"));
        const QString text = configtext::generated(OvpnConnection::Udp, server);
        QCOMPARE(text.count(QStringLiteral("<ca>\n%1 %2 %3 %4 %5 %6 %7\n-----BEGIN")), 1);
        QVERIFY(text.contains(QStringLiteral("\nremote vpn.example.net 1194\n")));
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
        const QByteArray file =
            configtext::written(configtext::generated(OvpnConnection::Udp, server));
        QCOMPARE(configtext::problem(OvpnConnection::Udp, server, file), QByteArray());
    }

    void everyTrickThatIsOneInjectsWithoutTheChecks_data() { everyTrickIsLeftOutOrHarmless_data(); }

    void everyTrickThatIsOneInjectsWithoutTheChecks()
    {
        QFETCH(VpnServerInformation, server);
        QFETCH(bool, isInjection);
        const QByteArray file =
            configtext::written(configtext::unchecked(OvpnConnection::Udp, server));
        bool isInjected = false;
        for (const auto &directive : openvpnparser::parse(file))
            isInjected = isInjected || directive.words.first() == "plugin";
        QCOMPARE(isInjected, isInjection);
    }
};

QTEST_GUILESS_MAIN(ServerFields)
#include "tst_serverfields.moc"
