#include "ipcurls.h"
#include "operationresult.h"
#include "vpnserverinformation.h"

#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtTest/QtTest>

namespace {

class Source : public ServiceInterfaceSource
{
public:
    void server_slot(bool) override {}
    void vpn_command(const QString &, const VpnServerInformation &) override {}
};

QByteArray written(const QVariant &record)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    return QMetaType::save(stream, record.userType(), record.constData()) ? bytes : QByteArray();
}

VpnServerInformation filledServer(int id)
{
    VpnServerInformation server;
    server.name = QStringLiteral("n");
    server.id = id;
    server.info = QStringLiteral("\u0416");
    server.host = QStringLiteral("h");
    server.ca = QStringLiteral("a");
    server.key = QStringLiteral("k");
    server.cert = QStringLiteral("c");
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

} // namespace

Q_DECLARE_METATYPE(const QMetaObject *)

/// What every client in the field was built against: the bytes of the records, the interfaces, the
/// names of the sockets.
class IpcRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    /// First, since nothing may have registered the two types before.
    void sourceRegistersBothRecords()
    {
        QCOMPARE(QMetaType::type("OperationResult"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("VpnServerInformation"), int(QMetaType::UnknownType));
        const Source source;
        const int resultType = QMetaType::type("OperationResult");
        QVERIFY(resultType >= QMetaType::User);
        QVERIFY(QMetaType::type("VpnServerInformation") > resultType);
    }

    /// With the operators that the source has registered.
    void recordsHaveTheirBytes_data()
    {
        QTest::addColumn<QVariant>("record");
        QTest::addColumn<QByteArray>("bytes"); // in hexadecimal
        const auto failed = OperationResult::failed(QStringLiteral("\u00e4\u20ac"));
        QTest::newRow("default result")
            << QVariant::fromValue(OperationResult()) << QByteArray("00000001 01 ffffffff");
        QTest::newRow("success") << QVariant::fromValue(OperationResult::succeeded())
                                 << QByteArray("00000001 01 ffffffff");
        QTest::newRow("failure") << QVariant::fromValue(failed)
                                 << QByteArray("00000001 00 00000004 00e420ac");
        QTest::newRow("default server")
            << QVariant::fromValue(VpnServerInformation())
            << QByteArray("ffffffff ffffffff ffffffff ffffffff ffffffff"
                          "ffffffff ffffffff ffffffff 00000000 00000000");
        QTest::newRow("server, with its id twice")
            << QVariant::fromValue(filledServer(7))
            << QByteArray("00000002 006e 00000007 00000002 0416 00000002 0068 00000007"
                          "00000002 0061 00000002 006b 00000002 0063 000004aa 000001bb");
    }

    void recordsHaveTheirBytes()
    {
        QFETCH(QVariant, record);
        QFETCH(QByteArray, bytes);
        bytes = QByteArray::fromHex(bytes);
        QCOMPARE(written(record).toHex(' '), bytes.toHex(' '));
        for (int length = 0; length <= bytes.size(); ++length) {
            QVariant read(record.userType(), nullptr);
            QDataStream stream(bytes.left(length));
            QVERIFY(QMetaType::load(stream, read.userType(), read.data()));
            QCOMPARE(stream.status(),
                     length < bytes.size() ? QDataStream::ReadPastEnd : QDataStream::Ok);
            if (length == bytes.size())
                QCOMPARE(written(read).toHex(' '), bytes.toHex(' '));
        }
    }

    void ofTwoDifferentIdsTheFifthItemStays()
    {
        QByteArray bytes = written(QVariant::fromValue(filledServer(7)));
        bytes.replace(22, 4, QByteArray("\xff\xff\xff\xf9", 4));
        VpnServerInformation server;
        QDataStream stream(bytes);
        stream >> server;
        QCOMPARE(written(QVariant::fromValue(server)),
                 written(QVariant::fromValue(filledServer(-7))));
    }

    void interfacesAreWhatClientsCheck_data()
    {
        QTest::addColumn<const QMetaObject *>("meta");
        QTest::addColumn<QByteArrayList>("content"); // the signature stands for all the rest
        QTest::newRow("IpcInterface")
            << &IpcInterfaceSource::staticMetaObject
            << QByteArrayList{"RemoteObject Type", "IpcInterface", "RemoteObject Signature",
                              "ad65198f84790423debe13cef807967b10723b23"};
        QTest::newRow("ServiceInterface")
            << &ServiceInterfaceSource::staticMetaObject
            << QByteArrayList{"RemoteObject Type", "ServiceInterface", "RemoteObject Signature",
                              "6e948fa9a606e1f9474e286989dc09c7b0b8b31b"};
    }

    void interfacesAreWhatClientsCheck()
    {
        QFETCH(const QMetaObject *, meta);
        QFETCH(QByteArrayList, content);
        QByteArrayList found;
        for (int i = meta->classInfoOffset(); i < meta->classInfoCount(); ++i)
            found << meta->classInfo(i).name() << meta->classInfo(i).value();
        QCOMPARE(found, content);
    }

    void methodsHaveTheirOrder()
    {
        const QMetaObject &meta = ServiceInterfaceSource::staticMetaObject;
        QByteArrayList found;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
            found << meta.method(i).methodSignature();
        QCOMPARE(
            found,
            (QByteArrayList{"vpn_cmd_result(QString,OperationResult)", "finished()",
                            "server_slot(bool)", "vpn_command(QString,VpnServerInformation)"}));
    }

    void socketsHaveTheirNames()
    {
        const QString main = QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface");
        QCOMPARE(shared::getIpcServiceUrl(), main);
        for (int n : {12, -1, 2'147'483'647})
            QCOMPARE(shared::getIpcProcessUrl(n), QStringLiteral("%1_%2").arg(main).arg(n));
    }
};

QTEST_GUILESS_MAIN(IpcRecords)
#include "tst_records.moc"
