#include "ovpnprofile.h"
#include "ovpntemplate.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

std::optional<OvpnProfile> parse(const QString &text, QString *error,
                                 const QString &folder = QStringLiteral("/nowhere"))
{
    return parseOvpnProfile(text, QStringLiteral("office.ovpn"), QDir(folder), error);
}

OvpnProfile parse(const QString &text)
{
    QString error;
    const std::optional<OvpnProfile> profile = parse(text, &error);
    if (!profile)
        qWarning() << error;
    return profile.value_or(OvpnProfile());
}

/// @return "host port transport" of each remote.
QStringList remotesOf(const QString &text)
{
    QStringList remotes;
    for (const OvpnProfile::Remote &remote : parse(text).remotes) {
        remotes.append(QStringLiteral("%1 %2 %3")
                           .arg(remote.host)
                           .arg(remote.port)
                           .arg(transportName(remote.transport)));
    }
    return remotes;
}

QString errorOf(const QString &text)
{
    QString error;
    return parse(text, &error) ? QStringLiteral("accepted") : error;
}

} // namespace

/// What is read from an OpenVPN client profile.
class VpnctlProfile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void remoteLineGivesHostPortAndTransport()
    {
        QCOMPARE(remotesOf(QStringLiteral("remote vpn.example.net 443 tcp\n")),
                 QStringList{QStringLiteral("vpn.example.net 443 TCP")});
    }

    void severalRemotesKeepTheirOrder()
    {
        QCOMPARE(remotesOf(QStringLiteral("remote b 1 udp\nremote a 2 tcp\nremote c 3\n")),
                 (QStringList{QStringLiteral("b 1 UDP"), QStringLiteral("a 2 TCP"),
                              QStringLiteral("c 3 UDP")}));
    }

    void remoteWithoutPortAndTransportIsUdp1194()
    {
        QCOMPARE(remotesOf(QStringLiteral("remote a\n")),
                 QStringList{QStringLiteral("a 1194 UDP")});
    }

    void portAndProtoLinesFillWhatRemotesLeaveOpen()
    {
        QCOMPARE(remotesOf(QStringLiteral("remote a\nremote b 53 udp\nproto tcp\nport 443\n")),
                 (QStringList{QStringLiteral("a 443 TCP"), QStringLiteral("b 53 UDP")}));
    }

    void connectionBlockKeepsItsOwnPortAndProto()
    {
        QCOMPARE(
            remotesOf(QStringLiteral("<connection>\nremote a\nport 443\nproto tcp\n</connection>\n"
                                     "<connection>\nremote b\n</connection>\n")),
            (QStringList{QStringLiteral("a 443 TCP"), QStringLiteral("b 1194 UDP")}));
    }

    void protoNamesATransport_data()
    {
        QTest::addColumn<QString>("proto");
        QTest::addColumn<QString>("transport");
        for (const char *udp : {"udp", "udp4", "udp6"})
            QTest::newRow(udp) << QString::fromLatin1(udp) << QStringLiteral("UDP");
        for (const char *tcp : {"tcp", "tcp4", "tcp6", "tcp-client", "tcp4-client", "tcp6-client"})
            QTest::newRow(tcp) << QString::fromLatin1(tcp) << QStringLiteral("TCP");
    }

    void protoNamesATransport()
    {
        QFETCH(QString, proto);
        QFETCH(QString, transport);
        QCOMPARE(remotesOf(QStringLiteral("remote a 1\nproto %1\n").arg(proto)),
                 QStringList{QStringLiteral("a 1 ") + transport});
    }

    void commentsAndQuotesAreReadAsOpenvpnReadsThem()
    {
        QCOMPARE(
            remotesOf(QStringLiteral("# remote x\n;remote y\n  remote \"a\" '443' tcp # old\n")),
            QStringList{QStringLiteral("a 443 TCP")});
    }

    void windowsLineEndsAreFine()
    {
        QCOMPARE(remotesOf(QStringLiteral("client\r\nremote a 443 tcp\r\n")),
                 QStringList{QStringLiteral("a 443 TCP")});
    }

    void inlineBlocksAreRead()
    {
        const OvpnProfile profile = parse(
            QStringLiteral("remote a\n<ca>\n") + pemtexts::certificate(QStringLiteral("Q0E="))
            + QStringLiteral("</ca>\n<cert>\n") + pemtexts::certificate()
            + QStringLiteral("</cert>\n<key>\n") + pemtexts::key() + QStringLiteral("</key>\n"));
        QCOMPARE(profile.ca, pemtexts::certificate(QStringLiteral("Q0E=")));
        QCOMPARE(profile.cert, pemtexts::certificate());
        QCOMPARE(profile.key, pemtexts::key());
    }

    void referencedFilesAreReadFromTheProfilesFolder()
    {
        QTemporaryDir folder;
        QFile ca(folder.filePath(QStringLiteral("our ca.crt")));
        QVERIFY(ca.open(QIODevice::WriteOnly));
        ca.write(pemtexts::certificate().toLatin1());
        ca.close();
        QFile file(folder.filePath(QStringLiteral("office.ovpn")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("remote a\nca \"our ca.crt\"\n");
        file.close();
        QString error;
        const std::optional<OvpnProfile> profile = readOvpnProfile(file.fileName(), &error);
        QVERIFY2(profile, qPrintable(error));
        QCOMPARE(profile->ca, pemtexts::certificate());
    }

    void whatTheDaemonSetsAnywayIsNotReported()
    {
        // The daemon's own scripts are no reason to be silent about the profile's.
        const QString daemonsOwn =
            vpncore::ovpnTemplate()
                .arg(QStringLiteral("udp"), QStringLiteral("a"), pemtexts::certificate(),
                     pemtexts::certificate(), pemtexts::key())
                .arg(1194)
                .arg(QStringLiteral("/Resources"));
        QCOMPARE(parse(daemonsOwn).notCarriedOver,
                 (QStringList{QStringLiteral("up"), QStringLiteral("down")}));
    }

    void otherDirectivesAreReportedOnce()
    {
        const OvpnProfile profile = parse(
            QStringLiteral("client\nremote a\nverb 3\nauth SHA256\nverb 4\nroute 10.0.0.0\n"));
        QCOMPARE(
            profile.notCarriedOver,
            (QStringList{QStringLiteral("verb"), QStringLiteral("auth"), QStringLiteral("route")}));
        QCOMPARE(profile.likelyNeeded, QStringList());
    }

    void directiveWithAnotherValueThanTheDaemonsIsReported()
    {
        QCOMPARE(parse(QStringLiteral("remote a\ncipher AES-128-CBC\n")).notCarriedOver,
                 QStringList{QStringLiteral("cipher")});
    }

    void directivesThatServersInsistOnAreMarked_data()
    {
        QTest::addColumn<QString>("lines");
        QTest::addColumn<QString>("name");
        QTest::addRow("inline tls-crypt") << QStringLiteral("<tls-crypt>\nremote z\n</tls-crypt>\n")
                                          << QStringLiteral("tls-crypt");
        QTest::addRow("tls-auth") << QStringLiteral("tls-auth ta.key 1\n")
                                  << QStringLiteral("tls-auth");
        QTest::addRow("password") << QStringLiteral("auth-user-pass\n")
                                  << QStringLiteral("auth-user-pass");
    }

    void directivesThatServersInsistOnAreMarked()
    {
        QFETCH(QString, lines);
        QFETCH(QString, name);
        const OvpnProfile profile = parse(QStringLiteral("remote a\n") + lines);
        QCOMPARE(profile.likelyNeeded, QStringList{name});
        QCOMPARE(profile.notCarriedOver, QStringList{name});
        QCOMPARE(profile.remotes.size(), 1);
    }

    void badProfileIsRefusedWithAReason_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        QTest::addRow("no remote")
            << QStringLiteral("client\n")
            << QStringLiteral("office.ovpn names no server: it has no \"remote\" line.");
        QTest::addRow("port 0")
            << QStringLiteral("remote a 0\n")
            << QStringLiteral("office.ovpn, line 1: \"0\" is no port; ports are 1 to 65535.");
        QTest::addRow("port 65536")
            << QStringLiteral("client\nremote a 65536\n")
            << QStringLiteral("office.ovpn, line 2: \"65536\" is no port; ports are 1 to 65535.");
        QTest::addRow("port line")
            << QStringLiteral("port many\nremote a\n")
            << QStringLiteral("office.ovpn, line 1: \"many\" is no port; ports are 1 to 65535.");
        QTest::addRow("transport")
            << QStringLiteral("remote a\nproto sctp\n")
            << QStringLiteral(
                   "office.ovpn, line 2: \"sctp\" is no transport; the daemon knows udp and tcp.");
        QTest::addRow("host") << QStringLiteral("remote \"a\\\" b\"\n")
                              << QStringLiteral(
                                     "office.ovpn, line 1: \"a\" b\" is no host name or address.");
        const QString longHost(236, QLatin1Char('a'));
        QTest::addRow("host that is too long")
            << QStringLiteral("remote %1\n").arg(longHost)
            << QStringLiteral("office.ovpn, line 1: \"%1\" is no host name or address.")
                   .arg(longHost);
        QTest::addRow("no host") << QStringLiteral(
            "remote\n") << QStringLiteral("office.ovpn, line 1: \"\" is no host name or address.");
        QTest::addRow("quote") << QStringLiteral("remote \"a\n")
                               << QStringLiteral("office.ovpn, line 1: a quote does not end.");
        QTest::addRow("open block")
            << QStringLiteral("remote a\n<ca>\nx\n")
            << QStringLiteral("office.ovpn, line 2: <ca> does not end with </ca>.");
        QTest::addRow("open connection")
            << QStringLiteral("<connection>\nremote a\n")
            << QStringLiteral("office.ovpn: <connection> does not end with </connection>.");
        QTest::addRow("missing file")
            << QStringLiteral("remote a\nca ca.crt\n")
            << QStringLiteral(
                   "Cannot read the ca file /nowhere/ca.crt: No such file or directory.");
        QTest::addRow("no file") << QStringLiteral("remote a\nkey\n")
                                 << QStringLiteral("office.ovpn, line 2: \"key\" lacks its file.");
        QTest::addRow("no PEM inline")
            << QStringLiteral("remote a\n<cert>\nx\n</cert>\n")
            << QStringLiteral(
                   "<cert> in office.ovpn holds no certificate in PEM form (\"-----BEGIN ...\").");
    }

    void badProfileIsRefusedWithAReason()
    {
        QFETCH(QString, text);
        QFETCH(QString, reason);
        QCOMPARE(errorOf(text), reason);
    }

    void missingProfileIsNamed()
    {
        QString error;
        QVERIFY(!readOvpnProfile(QStringLiteral("/nowhere/office.ovpn"), &error));
        QCOMPARE(error,
                 QStringLiteral(
                     "Cannot read the profile /nowhere/office.ovpn: No such file or directory."));
    }
};

QTEST_GUILESS_MAIN(VpnctlProfile)
#include "tst_ovpnprofile.moc"
