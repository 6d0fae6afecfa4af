#include "ovpnprofile.h"

#include "ovpntemplate.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

std::optional<OvpnProfile> parse(const QString &text, QString *error)
{
    return parseOvpnProfile(text, QStringLiteral("o.ovpn"), QDir(QStringLiteral("/nowhere")),
                            error);
}

OvpnProfile parse(const QString &text)
{
    QString error;
    const std::optional<OvpnProfile> profile = parse(text, &error);
    if (!profile)
        qWarning() << error;
    return profile.value_or(OvpnProfile());
}

/// @return "host port transport" of each remote, comma-separated.
QString remotesOf(const OvpnProfile &profile)
{
    QStringList remotes;
    for (const OvpnProfile::Remote &remote : profile.remotes) {
        remotes.append(QStringLiteral("%1 %2 %3")
                           .arg(remote.host)
                           .arg(remote.port)
                           .arg(transportName(remote.transport)));
    }
    return remotes.join(QStringLiteral(", "));
}

/// Adds a row with two texts.
void row(const char *name, const QString &first, const char *second)
{
    QTest::newRow(name) << first << QString::fromLatin1(second);
}

void row(const char *name, const char *first, const char *second)
{
    row(name, QString::fromLatin1(first), second);
}

} // namespace

/// What is read from an OpenVPN client profile.
class VpnctlOvpnProfile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void remotesAreReadAsOpenvpnReadsThem_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("remotes");
        row("complete", "remote vpn.example.net 443 tcp\n", "vpn.example.net 443 TCP");
        row("host only", "remote a\n", "a 1194 UDP");
        row("several keep their order", "remote b 1 udp\nremote a 2 tcp\nremote c 3\n",
            "b 1 UDP, a 2 TCP, c 3 UDP");
        row("port and proto lines fill what remotes leave open",
            "remote a\nremote b 53 udp\nproto tcp\nport 443\n", "a 443 TCP, b 53 UDP");
        row("connection blocks keep their own port and proto",
            "<connection>\nremote a\nport 443\nproto tcp\n</connection>\n"
            "<connection>\nremote b\n</connection>\n",
            "a 443 TCP, b 1194 UDP");
        row("comments and quotes", "# remote x\n;remote y\n  remote \"a\" '443' tcp # old\n",
            "a 443 TCP");
        row("Windows line ends", "client\r\nremote a 443 tcp\r\n", "a 443 TCP");
        for (const char *proto : {"udp", "udp4", "udp6"})
            row(proto, QStringLiteral("remote a 1\nproto ") + QLatin1String(proto), "a 1 UDP");
        for (const char *proto :
             {"tcp", "tcp4", "tcp6", "tcp-client", "tcp4-client", "tcp6-client"})
            row(proto, QStringLiteral("remote a 1\nproto ") + QLatin1String(proto), "a 1 TCP");
    }

    void remotesAreReadAsOpenvpnReadsThem()
    {
        QFETCH(QString, text);
        QFETCH(QString, remotes);
        QCOMPARE(remotesOf(parse(text)), remotes);
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
        const auto write = [&folder](const char *name, const QByteArray &content) {
            QFile file(folder.filePath(QLatin1String(name)));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        };
        write("our ca.crt", pemtexts::certificate().toLatin1());
        write("office.ovpn", "remote a\nca \"our ca.crt\"\n");
        QString error;
        const std::optional<OvpnProfile> profile =
            readOvpnProfile(folder.filePath(QStringLiteral("office.ovpn")), &error);
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

    void directivesNotCarriedOverAreReportedOnce_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("names"); // after "!", what servers insist on
        row("others", "client\nverb 3\nauth SHA256\nverb 4\nroute 10.0.0.0\n", "verb,auth,route!");
        row("another value than the daemon's", "cipher AES-128-CBC\n", "cipher!");
        row("block", "<tls-crypt>\nremote z\n</tls-crypt>\n", "tls-crypt!tls-crypt");
        row("key of the server", "tls-auth ta.key 1\nverb 3\n", "tls-auth,verb!tls-auth");
        row("password", "auth-user-pass\n", "auth-user-pass!auth-user-pass");
    }

    void directivesNotCarriedOverAreReportedOnce()
    {
        QFETCH(QString, text);
        QFETCH(QString, names);
        const OvpnProfile profile = parse(QStringLiteral("remote a\n") + text);
        const QString comma = QStringLiteral(",");
        QCOMPARE(profile.notCarriedOver.join(comma) + QLatin1Char('!')
                     + profile.likelyNeeded.join(comma),
                 names);
        QCOMPARE(remotesOf(profile), QStringLiteral("a 1194 UDP"));
    }

    void badProfileIsRefusedWithAReason_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        row("no remote", "client\n", "o.ovpn names no server: it has no \"remote\" line.");
        row("port 0", "remote a 0\n", "o.ovpn, line 1: \"0\" is no port; ports are 1 to 65535.");
        row("port 65536", "client\nremote a 65536\n",
            "o.ovpn, line 2: \"65536\" is no port; ports are 1 to 65535.");
        row("port line", "port many\nremote a\n",
            "o.ovpn, line 1: \"many\" is no port; ports are 1 to 65535.");
        row("transport", "remote a\nproto sctp\n",
            "o.ovpn, line 2: \"sctp\" is no transport; the daemon knows udp and tcp.");
        row("host", "remote \"a\\\" b\"\n",
            "o.ovpn, line 1: \"a\" b\" is no host name or address.");
        row("no host", "remote\n", "o.ovpn, line 1: \"\" is no host name or address.");
        row("quote", "remote \"a\n", "o.ovpn, line 1: a quote does not end.");
        row("open block", "remote a\n<ca>\nx\n", "o.ovpn, line 2: <ca> does not end with </ca>.");
        row("open connection", "<connection>\nremote a\n",
            "o.ovpn: <connection> does not end with </connection>.");
        row("missing file", "remote a\nca ca.crt\n",
            "Cannot read the ca file /nowhere/ca.crt: No such file or directory.");
        row("no file", "remote a\nkey\n", "o.ovpn, line 2: \"key\" lacks its file.");
        row("no PEM inline", "remote a\n<cert>\nx\n</cert>\n",
            "<cert> in o.ovpn holds no certificate in PEM form (\"-----BEGIN ...\").");
    }

    void badProfileIsRefusedWithAReason()
    {
        QFETCH(QString, text);
        QFETCH(QString, reason);
        QString error;
        QVERIFY(!parse(text, &error));
        QCOMPARE(error, reason);
    }
};

QTEST_GUILESS_MAIN(VpnctlOvpnProfile)
#include "tst_ovpnprofile.moc"
