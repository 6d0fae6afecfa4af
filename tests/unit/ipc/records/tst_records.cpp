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

VpnServerInformation server(int id)
{
    return {"n", id, "\u0416", "h", "a", "k", "c", 1194, 443};
}

} // namespace

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
        const auto row = [](const char *name, const auto &record, const char *bytes) {
            QTest::newRow(name) << QVariant::fromValue(record) << QByteArray(bytes);
        };
        row("default result", OperationResult(), "00000001 01 ffffffff");
        row("success", OperationResult::succeeded(), "00000001 01 ffffffff");
        row("failure", OperationResult::failed("\u00e4\u20ac"), "00000001 00 00000004 00e420ac");
        row("default server", VpnServerInformation(),
            "ffffffff ffffffff ffffffff ffffffff ffffffff"
            "ffffffff ffffffff ffffffff 00000000 00000000");
        row("server, with its id twice", server(7),
            "00000002 006e 00000007 00000002 0416 00000002 0068 00000007"
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
            const bool isWhole = length == bytes.size();
            QCOMPARE(stream.status(), isWhole ? QDataStream::Ok : QDataStream::ReadPastEnd);
            QVERIFY(!isWhole || written(read) == bytes);
        }
    }

    void ofTwoDifferentIdsTheFifthItemStays()
    {
        QByteArray bytes = written(QVariant::fromValue(server(7)));
        QDataStream stream(bytes.replace(22, 4, QByteArray::fromHex("fffffff9")));
        VpnServerInformation read;
        stream >> read;
        QCOMPARE(read.id, -7);
    }

    /// The signature stands for names, types and order of all members.
    void interfacesAreWhatClientsCheck()
    {
        const auto information = [](const QMetaObject &meta) {
            QByteArrayList found;
            for (int i = meta.classInfoOffset(); i < meta.classInfoCount(); ++i)
                found << meta.classInfo(i).name() << meta.classInfo(i).value();
            return found;
        };
        QCOMPARE(information(IpcInterfaceSource::staticMetaObject),
                 (QByteArrayList{"RemoteObject Type", "IpcInterface", "RemoteObject Signature",
                                 "ad65198f84790423debe13cef807967b10723b23"}));
        QCOMPARE(information(ServiceInterfaceSource::staticMetaObject),
                 (QByteArrayList{"RemoteObject Type", "ServiceInterface", "RemoteObject Signature",
                                 "6e948fa9a606e1f9474e286989dc09c7b0b8b31b"}));
    }

    void socketsHaveTheirNames()
    {
        const QString main = "/tmp/local:TalvexFreeVpnIpcInterface";
        QCOMPARE(shared::getIpcServiceUrl(), main);
        for (int n : {12, -1, 2'147'483'647})
            QCOMPARE(shared::getIpcProcessUrl(n), QString("%1_%2").arg(main).arg(n));
    }
};

QTEST_GUILESS_MAIN(IpcRecords)
#include "tst_records.moc"
