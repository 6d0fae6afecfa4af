#include "targetreader.h"

#include "pemtexts.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @return "host port transport" of each target, then the notes.
QStringList linesOf(const TargetList &list)
{
    QStringList lines;
    for (const Target &target : list.targets) {
        lines.append(QStringLiteral("%1 %2 %3")
                         .arg(target.server.host)
                         .arg(target.port())
                         .arg(transportName(target.transport)));
    }
    return lines + list.notes;
}

} // namespace

/// Where a connect command goes.
class VpnctlTargetReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void optionsAndFileGiveTargetsAndNotes_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("lines");
        const auto row = [](const char *name, const char *option, const QByteArray &content,
                            const char *lines) {
            QTest::newRow(name) << QString::fromLatin1(option) << content
                                << QString::fromLatin1(lines).split(QLatin1Char('|'));
        };
        const QByteArray keys = "key k.key\ncert c.crt\nca c.crt\n";
        row("profile", "", "remote a 1 udp\nremote b 2 tcp\n" + keys, "a 1 UDP|b 2 TCP");
        row("profile, transport that a remote has", "tcp",
            "remote a 1 udp\nremote b 2 tcp\n" + keys, "b 2 TCP");
        row("profile, transport that no remote has", "tcp", "remote a 1 udp\nremote b 2\n" + keys,
            "a 1 TCP|b 2 TCP");
        row("profile, with notes", "", "remote a\nverb 3\ntls-auth ta.key\nca c.crt\n",
            "a 1194 UDP|Not carried over from the profile: verb, tls-auth. The server may let "
            "nobody in without: tls-auth.|openvpn will most likely refuse to start without: cert, "
            "key.");
        const QByteArray pem = R"(,"ca":"c.crt","cert":"c.crt","key":"k.key"})";
        const QByteArray bothPorts = R"({"host":"a","udpPort":1,"tcpPort":2)" + pem;
        row("record", "", bothPorts, "a 1 UDP");
        row("record, TCP", "tcp", bothPorts, "a 2 TCP");
        row("record that has TCP only", "", R"({"host":"a","tcpPort":2)" + pem, "a 2 TCP");
        row("record, with a note", "", R"({"host":"a","tcpPort":2,"port":3)" + pem,
            "a 2 TCP|Keys of the record that mean nothing here: port.");
        row("record without the port", "tcp", R"({"host":"a","udpPort":1)" + pem,
            "FILE gives no port for TCP: \"tcpPort\" is missing.");
    }

    void optionsAndFileGiveTargetsAndNotes()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, lines);
        const QString path = write(QStringLiteral("file"), content);
        Options options;
        (content.startsWith('{') ? options.recordPath : options.configPath) = path;
        if (option == QLatin1String("tcp"))
            options.tcp = true;
        QString error;
        const std::optional<TargetList> list = readTargets(options, &error);
        QCOMPARE(list ? linesOf(*list) : QStringList{error},
                 lines.replaceInStrings(QStringLiteral("FILE"), path));
    }

    void hostGoesByUdp1194UnlessToldOtherwise_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<bool>("isTcp");
        QTest::addColumn<QString>("target");
        QTest::newRow("nothing") << 1194 << false << QStringLiteral("a 1194 UDP");
        QTest::newRow("--port") << 53 << false << QStringLiteral("a 53 UDP");
        QTest::newRow("--tcp --port") << 443 << true << QStringLiteral("a 443 TCP");
    }

    void hostGoesByUdp1194UnlessToldOtherwise()
    {
        QFETCH(int, port);
        QFETCH(bool, isTcp);
        QFETCH(QString, target);
        Options options;
        options.host = QStringLiteral("a");
        options.port = port;
        options.caPath = options.certPath = m_folder.filePath(QStringLiteral("c.crt"));
        options.keyPath = m_folder.filePath(QStringLiteral("k.key"));
        if (isTcp)
            options.tcp = true;
        QString error;
        const std::optional<TargetList> list = readTargets(options, &error);
        QVERIFY2(list, qPrintable(error));
        QCOMPARE(linesOf(*list), QStringList{target});
        QCOMPARE(list->targets.constFirst().server.ca, pemtexts::certificate());
        QCOMPARE(list->targets.constFirst().server.cert, pemtexts::certificate());
        QCOMPARE(list->targets.constFirst().server.key, pemtexts::key());
    }

    void initTestCase()
    {
        write(QStringLiteral("c.crt"), pemtexts::certificate().toLatin1());
        write(QStringLiteral("k.key"), pemtexts::key().toLatin1());
    }

private:
    QString write(const QString &name, const QByteArray &content)
    {
        QFile file(m_folder.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return file.fileName();
    }

    QTemporaryDir m_folder;
};

QTEST_GUILESS_MAIN(VpnctlTargetReader)
#include "tst_targetreader.moc"
