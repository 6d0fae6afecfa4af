#include "files.h"
#include "inputfile.h"
#include "options.h"
#include "ovpntemplate.h"
#include "pemtexts.h"
#include "report.h"
#include "target.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @return JSON, with quotation marks in place of apostrophes.
QByteArray json(QByteArray text)
{
    return text.replace('\'', '"');
}

/// @return what becomes of "vpnctl connect ARGUMENTS": a line for each server, then the notes, then
///         the directives that would have protected; or the problem.
QString linesFor(const QString &arguments)
{
    QStringList lines;
    try {
        const QStringList words = ("vpnctl connect " + arguments).split(' ');
        const TargetList list = readTargets(std::get<Options>(readCommandLine(words)));
        for (const auto &[host, port, transport] : list.remotes)
            lines.append(QString("%1 %2 %3").arg(host).arg(port).arg(transportName(*transport)));
        if (!list.notCarriedOver.isEmpty())
            lines.append("not carried over: " + list.notCarriedOver.join(' '));
        for (const auto &[directive, text] : list.weaknesses)
            lines.append((text.endsWith('.') ? "weaker: " : "no sentence: ") + directive);
    } catch (const Problem &problem) {
        lines.append(problem.text);
    }
    return lines.join('|');
}

const QByteArray kKeys = "\nca c.crt\ncert 'c.crt'\nkey \"k.key\"\n";
const QByteArray kRecordKeys = ",'ca':'c.crt','cert':'c.crt','key':'k.key'}";

} // namespace

/// Where a connect command goes, and what is wrong with its files.
class VpnctlTarget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir::setCurrent(m_folder.path()));
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1")); // no file's
        lab::writeFile("c.crt", pemtexts::certificate().toLatin1());
        lab::writeFile("k.key", pemtexts::key().toLatin1());
    }

    void whereAConnectGoes_data()
    {
        QTest::addColumn<QByteArray>("arguments");
        QTest::addColumn<QByteArray>("content"); // of the file in them
        QTest::addColumn<QByteArray>("lines");
        const auto row = [](const QByteArray &arguments, const QByteArray &content,
                            const QByteArray &lines) {
            QTest::addRow("%s, %d, %s", arguments.constData(), content.size(), lines.constData())
                << arguments << content << lines;
        };
        const auto profile = [row](const char *content, const char *lines, const char *more = "") {
            row(QByteArray("o.ovpn") + more, content, lines);
        };
        profile("remote vpn.example.net 443 tcp", "vpn.example.net 443 TCP");
        profile("remote a", "a 1194 UDP");
        profile("remote b 1 udp\nremote a 2 tcp\nremote c 3", "b 1 UDP|a 2 TCP|c 3 UDP");
        profile("remote b 1 udp\nremote a 2 tcp", "a 2 TCP", " --tcp");
        profile("remote b 1\nremote a 2 udp", "b 1 TCP|a 2 TCP", " --tcp");
        profile("remote a\nremote b 53 udp\nproto tcp\nrport 443", "a 443 TCP|b 53 UDP");
        profile("<connection>\nremote a\nport 443\nproto tcp\n</connection>\n"
                "<connection>\nremote b\n</connection>",
                "a 443 TCP|b 1194 UDP");
        profile("# remote x\n;remote y\n  --remote \"a\" '443' tcp # old", "a 443 TCP");
        profile("client\r\nremote a 443 tcp-client\r\n", "a 443 TCP");
        profile("remote a 1 tcp6\nremote b 2 udp4", "a 1 TCP|b 2 UDP");

        profile("remote a\nverb 3\nroute 10.0.0.0\nmute 4\nroute 10.1.0.0\nkeepalive 1 2",
                "a 1194 UDP|not carried over: route keepalive");
        profile("remote a\ndev tun3\nremote-cert-tls server\ncipher AES-256-CBC\nreneg-sec 0",
                "a 1194 UDP");
        profile("remote a\ndev tap\nremote-cert-tls client\ncipher AES-128-CBC\nreneg-sec 9",
                "a 1194 UDP|weaker: dev|weaker: remote-cert-tls|weaker: cipher|weaker: reneg-sec");
        profile(
            "remote a\nverify-x509-name b name\ntls-version-min 1.2\ntls-auth ta.key 1\nauth "
            "SHA256",
            "a 1194 UDP|weaker: verify-x509-name|weaker: tls-version-min|weaker: tls-auth|weaker: "
            "auth");
        profile("remote a\nredirect-gateway def1\nauth-user-pass\nredirect-gateway",
                "a 1194 UDP|weaker: redirect-gateway|weaker: auth-user-pass");
        profile("remote a\n<tls-crypt>\nremote z\n</tls-crypt>", "a 1194 UDP|weaker: tls-crypt");

        profile("client", "o.ovpn names no server: it has no \"remote\" line.");
        profile("remote a 0", "o.ovpn, line 1: \"0\" is no port; ports are 1 to 65535.");
        profile("client\nremote a 65536",
                "o.ovpn, line 2: \"65536\" is no port; ports are 1 to 65535.");
        profile("port many", "o.ovpn, line 1: \"many\" is no port; ports are 1 to 65535.");
        profile("proto sctp",
                "o.ovpn, line 1: \"sctp\" is no transport; the daemon knows udp and tcp.");
        profile("remote \"a\\\" b\"", "o.ovpn, line 1: \"a\" b\" is no host name or address.");
        profile("remote", "o.ovpn, line 1: \"\" is no host name or address.");
        profile("remote \"a", "o.ovpn, line 1: a quote does not end.");
        profile("remote a\n<ca>\nx", "o.ovpn, line 2: <ca> does not end with </ca>.");
        profile("<connection>\nremote a", "o.ovpn: <connection> does not end with </connection>.");
        profile("key", "o.ovpn, line 1: \"key\" lacks its file.");
        profile("ca none.crt",
                "Cannot read the ca file FOLDER/none.crt: No such file or directory.");
        profile("<cert>\nx\n</cert>",
                "<cert> in o.ovpn holds no certificate in PEM form (\"-----BEGIN ...\").");

        row("--server r.json", "{'host':'a','udpPort':1,'tcpPort':2", "a 1 UDP");
        row("--server r.json --tcp", "{'host':'a','udpPort':1,'tcpPort':2", "a 2 TCP");
        row("--server r.json", "{'host':'fe80::1%en0','tcpPort':65535", "fe80::1%en0 65535 TCP");
        row("--server r.json --tcp", "{'host':'a','udpPort':1",
            "r.json gives no port for TCP: \"tcpPort\" is missing.");
        row("--server r.json", "{'name':'n'", "r.json: \"host\" is missing.");
        row("--server r.json", "{'host':'a\\nup x'",
            "r.json: \"host\" is no host name or address.");
        row("--server r.json", "{'host':'" + QByteArray(236, 'a') + '"',
            "r.json: \"host\" is no host name or address.");
        row("--server r.json", "{'host':'" + QByteArray(235, 'a') + '"',
            "r.json gives no port for UDP: \"udpPort\" is missing.");
        row("--server r.json", "{'host':1", "r.json: \"host\" must be a text.");
        for (const char *port : {"65536", "-1", "44.3", "\"443\""})
            row("--server r.json", QByteArray("{'host':'a','udpPort':") + port,
                "r.json: \"udpPort\" must be a whole number from 0 to 65535.");
        row("--host a --ca c.crt --cert c.crt --key k.key", {}, "a 1194 UDP");
        row("--host a --ca c.crt --cert c.crt --key k.key --tcp --port 443", {}, "a 443 TCP");
        row("--host a --ca none --cert c.crt --key k.key", {},
            "Cannot read the ca file none: No such file or directory.");
        for (const QByteArray host : {"a.b:443", "[fe80::1]:443", "a_/b"})
            row("--ca c.crt --cert c.crt --key k.key --host " + host, {},
                '"' + host + "\" is no host name or address.");

        row("file", "remote a\ncert c.crt", "file lacks: ca, key.");
        row("--server file", json("{'host':'a','udpPort':1,'ca':'c.crt'}"),
            "file lacks: cert, key.");
        row("--server file", "host: a", "file is not valid JSON: illegal value (at byte 1).");
        row("--server file", "[]", "file must hold one JSON object.");
        row("file", QByteArray(1'000'001, '#'),
            "The profile file has more than a million characters.");
        row("file", QByteArray(1'000'000, '#'), "file names no server: it has no \"remote\" line.");
        row("file", QByteArray("\xff\xfer\0e\0m\0o\0t\0e\0 \0a\0", 18),
            "file lacks: ca, cert, key.");
        row("none", {}, "Cannot read the profile none: No such file or directory.");
        row("/", {}, "Cannot read the profile /: file to open is a directory.");
        row("--server /dev/zero", {}, "The record /dev/zero has more than a million characters.");
    }

    void whereAConnectGoes()
    {
        QFETCH(QByteArray, arguments);
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, lines);
        lab::writeFile("o.ovpn", content + kKeys);
        lab::writeFile("r.json", json(content + kRecordKeys));
        lab::writeFile("file", content);
        lines.replace("FOLDER", m_folder.path().toLocal8Bit());
        QCOMPARE(linesFor(QString::fromLatin1(arguments)).toUtf8(), lines);
    }

    /// Paths are relative to the file's folder.
    void everyFieldIsRead()
    {
        const auto quoted = [](const QString &pem) { return pem.toLatin1().replace("\n", "\\n"); };
        const QString certificate = pemtexts::certificate("Q0E=");
        lab::writeFile("sub/our c.crt", certificate.toLatin1());
        lab::writeFile(
            "sub/r.json",
            json("{'name':'Büro','id':7,'info':'main','host':'a','udpPort':1,'tcpPort':2,"
                 "'ca':'"
                 + quoted(pemtexts::certificate()) + "','cert':'our c.crt','key':'"
                 + quoted(pemtexts::key()) + "'}"));
        const VpnServerInformation record = readServerRecord("sub/r.json");
        QCOMPARE(record.name + record.info, "Büromain");
        QCOMPARE(record.id, 7);
        QCOMPARE(record.ca, pemtexts::certificate());
        QCOMPARE(record.cert, certificate);
        QCOMPARE(record.key, pemtexts::key());

        lab::writeFile("sub/o.ovpn",
                       "remote a\n<ca>\nBag\n" + record.ca.toLatin1()
                           + "</ca>\ncert \"our c.crt\"\nkey [inline]\n<key>\n"
                           + record.key.toLatin1() + "</key>\n");
        const VpnServerInformation server = readOvpnProfile("sub/o.ovpn").server;
        QCOMPARE(server.ca, record.ca);
        QCOMPARE(server.cert, record.cert);
        QCOMPARE(server.key, record.key);
    }

    void whatTheDaemonSetsAnywayIsNotReported()
    {
        // The daemon's own scripts are no reason to be silent about the profile's.
        const QString daemonsOwn =
            vpncore::ovpnTemplate()
                .arg("udp", "a", pemtexts::certificate(), pemtexts::certificate(), pemtexts::key())
                .arg(1194)
                .arg("/Resources");
        lab::writeFile("o.ovpn", daemonsOwn.toLatin1());
        QCOMPARE(linesFor("o.ovpn"), "a 1194 UDP|not carried over: up down");
    }

    void pemIsTakenWithoutWhatStandsAround_data()
    {
        QTest::addColumn<int>("setting"); // of kPemSettings
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("taken");
        const QString certificate = pemtexts::certificate();
        const QString none = "some.pem holds no certificate in PEM form (\"-----BEGIN ...\").";
        const QString damaged = "some.pem holds a damaged PEM block: it is no base64.";
        const QString encrypted =
            "The key in some.pem is encrypted, and the daemon cannot ask for its "
            "pass phrase; store it decrypted.";
        const auto row = [](const char *name, int setting, const QString &text,
                            const QString &taken) {
            QTest::newRow(name) << setting << text << taken;
        };
        row("as it is", 0, certificate, certificate);
        row("with openssl's text around", 0,
            QString("Certificate:\n    up /tmp/x\n%1</ca>\nup /tmp/x\n").arg(certificate),
            certificate);
        row("chain", 0, certificate + certificate, certificate + certificate);
        row("carriage returns, no end", 0, certificate.trimmed().replace('\n', "\r\n"),
            certificate);
        row("key", 2, pemtexts::block("RSA PRIVATE KEY"), pemtexts::block("RSA PRIVATE KEY"));
        row("no block", 0, "QUJD\n", none);
        row("block without end", 0, certificate.left(40), none);
        row("key as cert", 1, pemtexts::key(), none);
        row("cert as key", 2, certificate,
            "some.pem holds no private key in PEM form (\"-----BEGIN ...\").");
        row("encrypted, PKCS 8", 2, pemtexts::block("ENCRYPTED PRIVATE KEY"), encrypted);
        row("encrypted, older form", 2,
            pemtexts::block("RSA PRIVATE KEY", "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES,00\n\nQUJD"),
            encrypted);
        for (const char *body :
             {"QUJD\n</ca>\nup /tmp/script", "QUJD\nup /tmp/script", "QUJD===", "QQ==QUJD",
              "Comment:mine\n\nQUJD", "QUJ\xc4", "QU\aJD", "QUJD\n-----END PRIVATE KEY-----\nQUJD"})
            row(body, 0, pemtexts::certificate(QString::fromLatin1(body)), damaged);
    }

    void pemIsTakenWithoutWhatStandsAround()
    {
        QFETCH(int, setting);
        QFETCH(QString, text);
        QFETCH(QString, taken);
        QString result;
        try {
            result = pemFromText(kPemSettings[setting], text, "some.pem");
        } catch (const Problem &problem) {
            result = problem.text;
        }
        QCOMPARE(result, taken);
    }

private:
    QTemporaryDir m_folder;
};

QTEST_GUILESS_MAIN(VpnctlTarget)
#include "tst_target.moc"
