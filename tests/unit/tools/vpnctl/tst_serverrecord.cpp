#include "pemtexts.h"
#include "serverrecord.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

std::optional<ServerRecord> parse(const QByteArray &json, QString *error)
{
    return parseServerRecord(json, QStringLiteral("record.json"), QDir(QStringLiteral("/nowhere")),
                             error);
}

QByteArray withPem(const QString &key, const QString &pem)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("host"), QStringLiteral("a")}, {key, pem}})
        .toJson();
}

QByteArray withHostOf(int length)
{
    const QString host(length, QLatin1Char('a'));
    return QJsonDocument(QJsonObject{{QStringLiteral("host"), host}}).toJson();
}

} // namespace

/// What is read from a server record.
class VpnctlRecord : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyFieldIsRead()
    {
        const QJsonObject object{
            {QStringLiteral("name"), QStringLiteral("Office")},
            {QStringLiteral("id"), 7},
            {QStringLiteral("info"), QStringLiteral("main building")},
            {QStringLiteral("host"), QStringLiteral("192.0.2.1")},
            {QStringLiteral("ca"), pemtexts::certificate()},
            {QStringLiteral("key"), pemtexts::key()},
            {QStringLiteral("cert"), pemtexts::certificate(QStringLiteral("REVG"))},
            {QStringLiteral("udpPort"), 1194},
            {QStringLiteral("tcpPort"), 443}};
        QString error;
        const std::optional<ServerRecord> record = parse(QJsonDocument(object).toJson(), &error);
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
        QCOMPARE(server.tcpPort, 443);
        QCOMPARE(record->unknownKeys, QStringList());
    }

    void onlyTheHostIsNeeded()
    {
        QString error;
        const std::optional<ServerRecord> record = parse(R"({"host":"a"})", &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->server.id, -1);
        QCOMPARE(record->server.udpPort, 0);
    }

    void hostIsTaken_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addRow("longest") << QString(235, QLatin1Char('a'));
        QTest::addRow("name") << QStringLiteral("A-b_9.example.net.");
        QTest::addRow("address with a zone") << QStringLiteral("fe80::1%en0");
    }

    void hostIsTaken()
    {
        QFETCH(QString, host);
        QString error;
        const std::optional<ServerRecord> record =
            parse(R"({"host":")" + host.toLatin1() + R"("})", &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->server.host, host);
    }

    void unknownKeysAreReported()
    {
        QString error;
        const std::optional<ServerRecord> record =
            parse(R"({"host":"a","port":1,"HOST":"b"})", &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->unknownKeys,
                 (QStringList{QStringLiteral("HOST"), QStringLiteral("port")}));
    }

    void pathsAreRelativeToTheRecord()
    {
        QTemporaryDir folder;
        QFile key(folder.filePath(QStringLiteral("me.key")));
        QVERIFY(key.open(QIODevice::WriteOnly));
        key.write(pemtexts::key().toLatin1());
        key.close();
        QFile file(folder.filePath(QStringLiteral("record.json")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(R"({"host":"a","key":"me.key"})");
        file.close();
        QString error;
        const std::optional<ServerRecord> record = readServerRecord(file.fileName(), &error);
        QVERIFY2(record, qPrintable(error));
        QCOMPARE(record->server.key, pemtexts::key());
    }

    void badRecordIsRefusedWithAReason_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("reason");
        const QString ports = QStringLiteral("must be a whole number from 0 to 65535.");
        QTest::addRow("no JSON")
            << QByteArray("host: a")
            << QStringLiteral("record.json is not valid JSON: illegal value (at byte 1).");
        QTest::addRow("array") << QByteArray("[]")
                               << QStringLiteral("record.json must hold one JSON object.");
        QTest::addRow("no host") << QByteArray("{}")
                                 << QStringLiteral("record.json: \"host\" is missing.");
        QTest::addRow("host with a line end")
            << QByteArray(R"({"host":"a\nup x"})")
            << QStringLiteral("record.json: \"host\" is no host name or address.");
        QTest::addRow("host that is too long")
            << withHostOf(236)
            << QStringLiteral("record.json: \"host\" is no host name or address.");
        QTest::addRow("host is a number")
            << QByteArray(R"({"host":1})")
            << QStringLiteral("record.json: \"host\" must be a text.");
        QTest::addRow("port too large") << QByteArray(R"({"host":"a","udpPort":65536})")
                                        << QStringLiteral("record.json: \"udpPort\" ") + ports;
        QTest::addRow("port negative") << QByteArray(R"({"host":"a","tcpPort":-1})")
                                       << QStringLiteral("record.json: \"tcpPort\" ") + ports;
        QTest::addRow("port with a fraction")
            << QByteArray(R"({"host":"a","tcpPort":44.3})")
            << QStringLiteral("record.json: \"tcpPort\" ") + ports;
        QTest::addRow("port is a text") << QByteArray(R"({"host":"a","tcpPort":"443"})")
                                        << QStringLiteral("record.json: \"tcpPort\" ") + ports;
        QTest::addRow("missing file")
            << QByteArray(R"({"host":"a","ca":"ca.crt"})")
            << QStringLiteral(
                   "Cannot read the ca file /nowhere/ca.crt: No such file or directory.");
        QTest::addRow("cert as key")
            << withPem(QStringLiteral("key"), pemtexts::certificate())
            << QStringLiteral(
                   "\"key\" in record.json holds no private key in PEM form (\"-----BEGIN ...\").");
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

QTEST_GUILESS_MAIN(VpnctlRecord)
#include "tst_serverrecord.moc"
