#include "serverrecord.h"

#include "pemtexts.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @param json with single quotes.
std::optional<ServerRecord> parse(QByteArray json, QString *error)
{
    return parseServerRecord(json.replace('\'', '"'), QStringLiteral("r.json"),
                             QDir(QStringLiteral("/nowhere")), error);
}

/// @return a PEM text as JSON has it.
QByteArray quoted(const QString &pem)
{
    return '\'' + pem.toLatin1().replace("\n", "\\n") + '\'';
}

} // namespace

/// What is read from a server record.
class VpnctlServerRecord : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyFieldIsRead()
    {
        QString error;
        const std::optional<ServerRecord> record =
            parse("{'name':'Office','id':7,'info':'main building','host':'192.0.2.1','ca':"
                      + quoted(pemtexts::certificate()) + ",'key':" + quoted(pemtexts::key())
                      + ",'cert':" + quoted(pemtexts::certificate(QStringLiteral("REVG")))
                      + ",'udpPort':1194,'tcpPort':65535,'port':1,'HOST':'b'}",
                  &error);
        QVERIFY2(record, qPrintable(error));
        const VpnServerInformation &server = record->server;
        QCOMPARE(server.name, QStringLiteral("Office"));
        QCOMPARE(server.id, 7);
        QCOMPARE(server.info, QStringLiteral("main building"));
        QCOMPARE(server.host, QStringLiteral("192.0.2.1"));
        QCOMPARE(server.ca, pemtexts::certificate());
        QCOMPARE(server.key, pemtexts::key());
        QCOMPARE(server.cert, pemtexts::certificate(QStringLiteral("REVG")));
        QCOMPARE(server.udpPort, 1194);
        QCOMPARE(server.tcpPort, 65535);
        QCOMPARE(record->unknownKeys,
                 (QStringList{QStringLiteral("HOST"), QStringLiteral("port")}));
    }

    void onlyTheHostIsNeeded_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("longest") << QString(235, QLatin1Char('a'));
        QTest::newRow("name") << QStringLiteral("A-b_9.example.net.");
        QTest::newRow("address with a zone") << QStringLiteral("fe80::1%en0");
    }

    void onlyTheHostIsNeeded()
    {
        QFETCH(QString, host);
        QString error;
        const std::optional<ServerRecord> record =
            parse("{'host':'" + host.toLatin1() + "'}", &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->server.host, host);
        QCOMPARE(record->server.id, -1);
        QCOMPARE(record->server.udpPort, 0);
        QCOMPARE(record->unknownKeys, QStringList());
    }

    void pathsAreRelativeToTheRecord()
    {
        QTemporaryDir folder;
        const auto write = [&folder](const char *name, const QByteArray &content) {
            QFile file(folder.filePath(QLatin1String(name)));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        };
        write("me.key", pemtexts::key().toLatin1());
        write("record.json", R"({"host":"a","key":"me.key"})");
        QString error;
        const std::optional<ServerRecord> record =
            readServerRecord(folder.filePath(QStringLiteral("record.json")), &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->server.key, pemtexts::key());
    }

    void badRecordIsRefusedWithAReason_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("reason");
        const auto row = [](const char *name, const QByteArray &json, const char *reason) {
            QTest::newRow(name) << json << QString::fromLatin1(reason);
        };
        row("no JSON", "host: a", "r.json is not valid JSON: illegal value (at byte 1).");
        row("array", "[]", "r.json must hold one JSON object.");
        row("no host", "{}", "r.json: \"host\" is missing.");
        const char *const noHost = "r.json: \"host\" is no host name or address.";
        row("host with a line end", "{'host':'a\\nup x'}", noHost);
        row("host that is too long", "{'host':'" + QByteArray(236, 'a') + "'}", noHost);
        row("host is a number", "{'host':1}", "r.json: \"host\" must be a text.");
        row("port too large", "{'host':'a','udpPort':65536}",
            "r.json: \"udpPort\" must be a whole number from 0 to 65535.");
        const char *const noPort = "r.json: \"tcpPort\" must be a whole number from 0 to 65535.";
        row("port negative", "{'host':'a','tcpPort':-1}", noPort);
        row("port with a fraction", "{'host':'a','tcpPort':44.3}", noPort);
        row("port is a text", "{'host':'a','tcpPort':'443'}", noPort);
        row("missing file", "{'host':'a','ca':'ca.crt'}",
            "Cannot read the ca file /nowhere/ca.crt: No such file or directory.");
        row("cert as key", "{'host':'a','key':" + quoted(pemtexts::certificate()) + '}',
            "\"key\" in r.json holds no private key in PEM form (\"-----BEGIN ...\").");
    }

    void badRecordIsRefusedWithAReason()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, reason);
        QString error;
        QVERIFY(!parse(json, &error));
        QCOMPARE(error, reason);
    }
};

QTEST_GUILESS_MAIN(VpnctlServerRecord)
#include "tst_serverrecord.moc"
