#include "ipcurls.h"
#include "operationresult.h"
#include "vpnserverinformation.h"

#include "rep_ipcinterface_replica.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_replica.h"
#include "rep_serviceinterface_source.h"

#include <QtCore/QMetaMethod>
#include <QtTest/QtTest>

namespace {

/// A null QString has the byte count -1 on the wire, an empty one that is not null has 0.
const QByteArray kNullText("\xff\xff\xff\xff", 4);
const QByteArray kMinusOne("\xff\xff\xff\xff", 4);
const QByteArray kZero("\0\0\0\0", 4);

template<typename Record>
QByteArray written(const Record &record)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << record;
    return bytes;
}

/// Reads a record and notes what the stream says about it.
template<typename Record>
QDataStream::Status read(const QByteArray &bytes, Record &record)
{
    QDataStream stream(bytes);
    stream >> record;
    return stream.status();
}

OperationResult filledResult()
{
    return {0x01020304, false, QStringLiteral("\u00e4\u20ac")};
}

QByteArray filledResultBytes()
{
    return QByteArray("\x01\x02\x03\x04" // code
                      "\x00" // success
                      "\x00\x00\x00\x04\x00\xe4\x20\xac", // two UTF-16 units
                      13);
}

VpnServerInformation filledServer()
{
    VpnServerInformation server;
    server.name = QStringLiteral("n");
    server.id = 7;
    server.info = QStringLiteral("\u0416");
    server.host = QStringLiteral("h");
    server.ca = QStringLiteral("a");
    server.key = QStringLiteral("k");
    server.cert = QStringLiteral("c");
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

QByteArray filledServerBytes()
{
    return QByteArray("\x00\x00\x00\x02\x00n"
                      "\x00\x00\x00\x07"
                      "\x00\x00\x00\x02\x04\x16"
                      "\x00\x00\x00\x02\x00h"
                      "\x00\x00\x00\x07"
                      "\x00\x00\x00\x02\x00"
                      "a"
                      "\x00\x00\x00\x02\x00k"
                      "\x00\x00\x00\x02\x00"
                      "c"
                      "\x00\x00\x04\xaa"
                      "\x00\x00\x01\xbb",
                      52);
}

class Source : public ServiceInterfaceSource
{
public:
    void server_slot(bool) override {}
    void vpn_command(const QString &, const VpnServerInformation &) override {}
};

/// Where the fifth item, the second copy of `id`, begins in filledServerBytes().
constexpr int kSecondId = 22;

/// The methods that a class adds to its base class, as "kind type signature".
QStringList ownMethods(const QMetaObject &meta)
{
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const bool isSignal = method.methodType() == QMetaMethod::Signal;
        methods.append(
            QStringLiteral("%1%2 %3 %4")
                .arg(method.access() == QMetaMethod::Public ? QString() : QStringLiteral("hidden "),
                     isSignal ? QStringLiteral("signal") : QStringLiteral("slot"),
                     QLatin1String(method.typeName()), QLatin1String(method.methodSignature())));
    }
    return methods;
}

/// The class information that a class adds to its base class, as "name=value".
QStringList ownClassInfo(const QMetaObject &meta)
{
    QStringList information;
    for (int i = meta.classInfoOffset(); i < meta.classInfoCount(); ++i) {
        const QMetaClassInfo info = meta.classInfo(i);
        information.append(QLatin1String(info.name()) + QLatin1Char('=')
                           + QLatin1String(info.value()));
    }
    return information;
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
    void sourceRegistersBothRecordsWithTheirOperators()
    {
        QCOMPARE(QMetaType::type("OperationResult"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("VpnServerInformation"), int(QMetaType::UnknownType));
        const Source source;
        const int resultType = QMetaType::type("OperationResult");
        const int serverType = QMetaType::type("VpnServerInformation");
        QVERIFY(resultType >= QMetaType::User);
        QVERIFY(serverType > resultType);

        const OperationResult result = filledResult();
        const VpnServerInformation server = filledServer();
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        QVERIFY(QMetaType::save(stream, resultType, &result));
        QVERIFY(QMetaType::save(stream, serverType, &server));
        QCOMPARE(bytes, filledResultBytes() + filledServerBytes());
        OperationResult readResult;
        VpnServerInformation readServer;
        QDataStream back(bytes);
        QVERIFY(QMetaType::load(back, resultType, &readResult));
        QVERIFY(QMetaType::load(back, serverType, &readServer));
        QCOMPARE(readResult.message, result.message);
        QCOMPARE(readServer.tcpPort, server.tcpPort);
        QVERIFY(back.atEnd());
    }

    void successAndFailureHaveCodeOne()
    {
        const OperationResult succeeded = OperationResult::succeeded();
        QCOMPARE(succeeded.code, 1);
        QCOMPARE(succeeded.success, true);
        QCOMPARE(succeeded.message, QString());
        const OperationResult failed = OperationResult::failed(QStringLiteral("warning.x"));
        QCOMPARE(failed.code, 1);
        QCOMPARE(failed.success, false);
        QCOMPARE(failed.message, QStringLiteral("warning.x"));
    }

    void defaultResultIsTheSuccessOnTheWire()
    {
        QCOMPARE(written(OperationResult()), QByteArray("\0\0\0\1\1", 5) + kNullText);
    }

    void filledResultHasItsFieldsInOrderOnTheWire()
    {
        QCOMPARE(written(filledResult()), filledResultBytes());
    }

    void resultIsReadAsWritten()
    {
        OperationResult result;
        QCOMPARE(read(filledResultBytes(), result), QDataStream::Ok);
        QCOMPARE(result.code, 0x01020304);
        QCOMPARE(result.success, false);
        QCOMPARE(result.message, QStringLiteral("\u00e4\u20ac"));
    }

    void defaultServerHasTenItemsOnTheWire()
    {
        QCOMPARE(written(VpnServerInformation()),
                 kNullText + kMinusOne + kNullText + kNullText + kMinusOne + kNullText + kNullText
                     + kNullText + kZero + kZero);
    }

    void filledServerHasItsIdTwiceOnTheWire()
    {
        QCOMPARE(written(filledServer()), filledServerBytes());
    }

    void serverIsReadAsWritten()
    {
        VpnServerInformation server;
        QCOMPARE(read(filledServerBytes(), server), QDataStream::Ok);
        QCOMPARE(server.name, QStringLiteral("n"));
        QCOMPARE(server.id, 7);
        QCOMPARE(server.info, QStringLiteral("\u0416"));
        QCOMPARE(server.host, QStringLiteral("h"));
        QCOMPARE(server.ca, QStringLiteral("a"));
        QCOMPARE(server.key, QStringLiteral("k"));
        QCOMPARE(server.cert, QStringLiteral("c"));
        QCOMPARE(server.udpPort, 1194);
        QCOMPARE(server.tcpPort, 443);
    }

    void ofTwoDifferentIdsTheFifthItemStays()
    {
        QByteArray bytes = filledServerBytes();
        bytes.replace(kSecondId, 4, QByteArray("\xff\xff\xff\xf9", 4));
        VpnServerInformation server;
        QCOMPARE(read(bytes, server), QDataStream::Ok);
        QCOMPARE(server.id, -7);
        QCOMPARE(server.host, QStringLiteral("h"));
        QCOMPARE(server.ca, QStringLiteral("a"));
    }

    void truncatedRecordIsReportedByTheStream()
    {
        for (int length = 0; length < filledResultBytes().size(); ++length) {
            OperationResult result;
            QCOMPARE(read(filledResultBytes().left(length), result), QDataStream::ReadPastEnd);
        }
        for (int length = 0; length < filledServerBytes().size(); ++length) {
            VpnServerInformation server;
            QCOMPARE(read(filledServerBytes().left(length), server), QDataStream::ReadPastEnd);
        }
    }

    void classInformationIsWhatClientsCheck_data()
    {
        QTest::addColumn<const QMetaObject *>("meta");
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("signature");
        const QString ipc = QStringLiteral("IpcInterface");
        const QString ipcSignature = QStringLiteral("ad65198f84790423debe13cef807967b10723b23");
        const QString service = QStringLiteral("ServiceInterface");
        const QString serviceSignature = QStringLiteral("6e948fa9a606e1f9474e286989dc09c7b0b8b31b");
        QTest::newRow("IpcInterfaceSource")
            << &IpcInterfaceSource::staticMetaObject << ipc << ipcSignature;
        QTest::newRow("IpcInterfaceReplica")
            << &IpcInterfaceReplica::staticMetaObject << ipc << ipcSignature;
        QTest::newRow("ServiceInterfaceSource")
            << &ServiceInterfaceSource::staticMetaObject << service << serviceSignature;
        QTest::newRow("ServiceInterfaceReplica")
            << &ServiceInterfaceReplica::staticMetaObject << service << serviceSignature;
    }

    void classInformationIsWhatClientsCheck()
    {
        QFETCH(const QMetaObject *, meta);
        QFETCH(QString, type);
        QFETCH(QString, signature);
        QCOMPARE(ownClassInfo(*meta),
                 (QStringList{QStringLiteral("RemoteObject Type=") + type,
                              QStringLiteral("RemoteObject Signature=") + signature}));
        QCOMPARE(meta->propertyCount(), meta->propertyOffset()); // none of its own
    }

    void ipcInterfaceIsOneSlot()
    {
        QCOMPARE(ownMethods(IpcInterfaceSource::staticMetaObject),
                 QStringList{QStringLiteral("slot int createPrivilegedProcess()")});
    }

    void serviceInterfaceIsTwoSignalsAndTwoSlotsInOrder()
    {
        QCOMPARE(
            ownMethods(ServiceInterfaceSource::staticMetaObject),
            (QStringList{QStringLiteral("signal void vpn_cmd_result(QString,OperationResult)"),
                         QStringLiteral("signal void finished()"),
                         QStringLiteral("slot void server_slot(bool)"),
                         QStringLiteral("slot void vpn_command(QString,VpnServerInformation)")}));
    }

    void argumentsHaveTheirNames()
    {
        const QMetaObject &meta = ServiceInterfaceSource::staticMetaObject;
        const int first = meta.methodOffset();
        QCOMPARE(meta.method(first).parameterNames(), (QList<QByteArray>{"message", "result"}));
        QCOMPARE(meta.method(first + 2).parameterNames(), QList<QByteArray>{"clientState"});
        QCOMPARE(meta.method(first + 3).parameterNames(),
                 (QList<QByteArray>{"message", "vpnServer"}));
    }

    void socketsHaveTheirNames()
    {
        QCOMPARE(shared::getIpcServiceUrl(),
                 QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface"));
        QCOMPARE(shared::getIpcProcessUrl(12),
                 QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_12"));
        QCOMPARE(shared::getIpcProcessUrl(-1),
                 QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_-1"));
        QCOMPARE(shared::getIpcProcessUrl(2'147'483'647),
                 QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_2147483647"));
    }
};

QTEST_GUILESS_MAIN(IpcRecords)
#include "tst_records.moc"
