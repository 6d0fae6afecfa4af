#include "options.h"
#include "pemtexts.h"
#include "targetreader.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

CommandLine parse(const QString &arguments)
{
    return parseCommandLine(QStringList{QStringLiteral("vpnctl")}
                            + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

/// Files in a folder of their own.
class Files
{
public:
    QString write(const QString &name, const QByteArray &content)
    {
        QFile file(m_folder.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return file.fileName();
    }

private:
    QTemporaryDir m_folder;
};

/// @return "host port transport" of each target; the error when there are none.
QStringList targetsOf(const QString &arguments)
{
    const CommandLine line = parse(arguments);
    if (!line.options)
        return {line.text};
    QString error;
    const std::optional<TargetList> list = readTargets(*line.options, &error);
    if (!list)
        return {error};
    QStringList targets;
    for (const Target &target : list->targets) {
        targets.append(QStringLiteral("%1 %2 %3")
                           .arg(target.server.host)
                           .arg(target.port())
                           .arg(transportName(target.transport)));
    }
    return targets;
}

} // namespace

/// What the command line means.
class VpnctlOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commandMayStandAnywhere_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addRow("first") << QStringLiteral("disconnect --json --endpoint 7");
        QTest::addRow("last") << QStringLiteral("--endpoint 7 --json disconnect");
        QTest::addRow("between") << QStringLiteral("--json disconnect --endpoint=7");
    }

    void commandMayStandAnywhere()
    {
        QFETCH(QString, arguments);
        const CommandLine line = parse(arguments);
        QVERIFY2(line.options, qPrintable(line.text));
        QVERIFY(line.options->command == Options::Command::Disconnect);
        QCOMPARE(line.options->endpoint, 7);
        QVERIFY(line.options->json);
    }

    void helpNamesEveryCommand()
    {
        const CommandLine line = parse(QStringLiteral("--help"));
        QVERIFY(!line.isError);
        for (const char *command : {"connect", "disconnect", "ping", "watch", "raw"})
            QVERIFY2(line.text.contains(QStringLiteral("\n  %1 ").arg(QLatin1String(command))),
                     command);
    }

    void helpOfACommandHasItsOptionsAndAnExample()
    {
        const CommandLine line = parse(QStringLiteral("connect --help"));
        QVERIFY(!line.isError);
        QVERIFY(line.text.startsWith(QStringLiteral("Usage: vpnctl connect ")));
        QVERIFY(line.text.contains(QStringLiteral("--detach")));
        QVERIFY(line.text.contains(QStringLiteral("vpnctl connect --config office.ovpn\n")));
        QVERIFY(!line.text.contains(QStringLiteral("--endpoint <N>")));
    }

    void wrongUseIsExplained_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("text");
        QTest::addRow("nothing") << QString()
                                 << QStringLiteral("Say what to do, for example \"vpnctl ping\".");
        QTest::addRow("no such command")
            << QStringLiteral("dance") << QStringLiteral("There is no command \"dance\".");
        QTest::addRow("no such option")
            << QStringLiteral("ping --loud") << QStringLiteral("Unknown option 'loud'.");
        QTest::addRow("option of another command")
            << QStringLiteral("ping --endpoint 1") << QStringLiteral("Unknown option 'endpoint'.");
        QTest::addRow("no source")
            << QStringLiteral("connect")
            << QStringLiteral(
                   "Say where to connect to, with one of --config, --server and --host.");
        QTest::addRow("two sources") << QStringLiteral("connect --config a --host b --ca c")
                                     << QStringLiteral("Say where to connect to, with one of "
                                                       "--config, --server and --host.");
        QTest::addRow("port without host")
            << QStringLiteral("connect --config a --port 1")
            << QStringLiteral("--port, --ca, --cert and --key go with --host only.");
        QTest::addRow("host without ca")
            << QStringLiteral("connect --host a")
            << QStringLiteral("--host needs --ca, the authority's certificate.");
        QTest::addRow("host that is too long")
            << QStringLiteral("connect --ca c --host %1").arg(QString(236, QLatin1Char('a')))
            << QStringLiteral("\"%1\" is no host name or address.")
                   .arg(QString(236, QLatin1Char('a')));
        QTest::addRow("both transports") << QStringLiteral("connect --config a --udp --tcp")
                                         << QStringLiteral("--udp and --tcp exclude each other.");
        QTest::addRow("port out of range")
            << QStringLiteral("connect --host a --ca c --port 65536")
            << QStringLiteral("--port must be a number from 1 to 65535, not \"65536\".");
        QTest::addRow("port 0") << QStringLiteral("connect --host a --ca c --port 0")
                                << QStringLiteral(
                                       "--port must be a number from 1 to 65535, not \"0\".");
        QTest::addRow("no endpoint") << QStringLiteral("disconnect")
                                     << QStringLiteral("Say which endpoint, with --endpoint N.");
        QTest::addRow("no text") << QStringLiteral("raw")
                                 << QStringLiteral("raw needs the JSON text to send.");
        QTest::addRow("too many words") << QStringLiteral("ping pong")
                                        << QStringLiteral("Do not know what to do with \"pong\".");
    }

    void wrongUseIsExplained()
    {
        QFETCH(QString, arguments);
        QFETCH(QString, text);
        const CommandLine line = parse(arguments);
        QVERIFY(line.isError);
        QCOMPARE(line.text, text);
    }

    void profileGivesOneTargetARemote()
    {
        Files files;
        const QString path =
            files.write(QStringLiteral("o.ovpn"), "remote a 1 udp\nremote b 2 tcp\n");
        QCOMPARE(targetsOf(QStringLiteral("connect --config ") + path),
                 (QStringList{QStringLiteral("a 1 UDP"), QStringLiteral("b 2 TCP")}));
    }

    void wantedTransportSelectsItsRemotes()
    {
        Files files;
        const QString path =
            files.write(QStringLiteral("o.ovpn"), "remote a 1 udp\nremote b 2 tcp\n");
        QCOMPARE(targetsOf(QStringLiteral("connect --tcp --config ") + path),
                 QStringList{QStringLiteral("b 2 TCP")});
    }

    void wantedTransportThatNoRemoteHasIsUsedForAll()
    {
        Files files;
        const QString path = files.write(QStringLiteral("o.ovpn"), "remote a 1 udp\nremote b 2\n");
        QCOMPARE(targetsOf(QStringLiteral("connect --tcp --config ") + path),
                 (QStringList{QStringLiteral("a 1 TCP"), QStringLiteral("b 2 TCP")}));
    }

    void recordGoesByUdpUnlessToldOtherwise_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("target");
        QTest::addRow("both ports")
            << QString() << QByteArray(R"({"host":"a","udpPort":1,"tcpPort":2})")
            << QStringLiteral("a 1 UDP");
        QTest::addRow("--tcp") << QStringLiteral("--tcp")
                               << QByteArray(R"({"host":"a","udpPort":1,"tcpPort":2})")
                               << QStringLiteral("a 2 TCP");
        QTest::addRow("TCP only") << QString() << QByteArray(R"({"host":"a","tcpPort":2})")
                                  << QStringLiteral("a 2 TCP");
    }

    void recordGoesByUdpUnlessToldOtherwise()
    {
        QFETCH(QString, options);
        QFETCH(QByteArray, json);
        QFETCH(QString, target);
        Files files;
        const QString path = files.write(QStringLiteral("r.json"), json);
        QCOMPARE(targetsOf(QStringLiteral("connect %1 --server %2").arg(options, path)),
                 QStringList{target});
    }

    void recordWithoutThePortIsRefused()
    {
        Files files;
        const QString path = files.write(QStringLiteral("r.json"), R"({"host":"a","udpPort":1})");
        QCOMPARE(
            targetsOf(QStringLiteral("connect --tcp --server ") + path),
            QStringList{path + QStringLiteral(" gives no port for TCP: \"tcpPort\" is missing.")});
    }

    void hostGoesByUdp1194UnlessToldOtherwise_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("target");
        QTest::addRow("nothing") << QString() << QStringLiteral("a 1194 UDP");
        QTest::addRow("--port") << QStringLiteral("--port 53") << QStringLiteral("a 53 UDP");
        QTest::addRow("--tcp") << QStringLiteral("--tcp --port 443") << QStringLiteral("a 443 TCP");
    }

    void hostGoesByUdp1194UnlessToldOtherwise()
    {
        QFETCH(QString, options);
        QFETCH(QString, target);
        Files files;
        const QString ca =
            files.write(QStringLiteral("ca.crt"), pemtexts::certificate().toLatin1());
        QCOMPARE(targetsOf(QStringLiteral("connect --host a --ca %1 %2").arg(ca, options)),
                 QStringList{target});
    }

    void whatIsMissingOrLeftOutIsNoted()
    {
        Files files;
        const QString path = files.write(QStringLiteral("o.ovpn"),
                                         "remote a\nverb 3\ntls-auth ta.key\n<ca>\n"
                                             + pemtexts::certificate().toLatin1() + "</ca>\n");
        const CommandLine line = parse(QStringLiteral("connect --config ") + path);
        QString error;
        const std::optional<TargetList> list =
            readTargets(line.options.value_or(Options()), &error);
        QVERIFY2(list, qPrintable(error));
        QCOMPARE(
            list->notes,
            (QStringList{
                QStringLiteral("Not carried over from the profile: verb, tls-auth. The "
                               "server may let nobody in without: tls-auth."),
                QStringLiteral("openvpn will most likely refuse to start without: cert, key.")}));
    }
};

QTEST_GUILESS_MAIN(VpnctlOptions)
#include "tst_options.moc"
