#include "ipcurls.h"
#include "operationresult.h"
#include "vpnserverinformation.h"

#include "rep_ipcinterface_replica.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_replica.h"
#include "rep_serviceinterface_source.h"

#include <QtCore/QMetaMethod>
#include <QtTest/QtTest>

#include <climits>
#include <type_traits>

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

int ownProperties(const QMetaObject &meta)
{
    return meta.propertyCount() - meta.propertyOffset();
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
    void sourceRegistersBothRecordsUnderTheirOwnNames()
    {
        QCOMPARE(QMetaType::type("OperationResult"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("VpnServerInformation"), int(QMetaType::UnknownType));
        const Source source;
        QVERIFY(QMetaType::type("OperationResult") >= QMetaType::User);
        QVERIFY(QMetaType::type("VpnServerInformation") >= QMetaType::User);
    }

    void sourceRegistersTheResultBeforeTheServer()
    {
        const Source source;
        const int result = QMetaType::type("OperationResult");
        const int server = QMetaType::type("VpnServerInformation");
        QVERIFY(result != QMetaType::UnknownType);
        QVERIFY2(result < server, qPrintable(QStringLiteral("%1 %2").arg(result).arg(server)));
    }

    void sourceRegistersTheStreamOperatorsOfBothRecords()
    {
        const Source source;
        const OperationResult result = filledResult();
        const VpnServerInformation server = filledServer();
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        QVERIFY(QMetaType::save(stream, QMetaType::type("OperationResult"), &result));
        QCOMPARE(bytes, filledResultBytes());
        QVERIFY(QMetaType::save(stream, QMetaType::type("VpnServerInformation"), &server));
        QCOMPARE(bytes, filledResultBytes() + filledServerBytes());

        OperationResult readResult;
        VpnServerInformation readServer;
        QDataStream back(bytes);
        QVERIFY(QMetaType::load(back, QMetaType::type("OperationResult"), &readResult));
        QVERIFY(QMetaType::load(back, QMetaType::type("VpnServerInformation"), &readServer));
        QCOMPARE(readResult.message, result.message);
        QCOMPARE(readServer.tcpPort, server.tcpPort);
    }

    void recordsAreNoGadgets()
    {
        QVERIFY(!QMetaType::metaObjectForType(qMetaTypeId<OperationResult>()));
        QVERIFY(!QMetaType::metaObjectForType(qMetaTypeId<VpnServerInformation>()));
    }

    void defaultResultIsTheSuccessOnTheWire()
    {
        QCOMPARE(written(OperationResult()), QByteArray("\0\0\0\1\1", 5) + kNullText);
    }

    void emptyMessageThatIsNotNullHasLengthZeroOnTheWire()
    {
        QCOMPARE(written(OperationResult{1, true, QStringLiteral("")}),
                 QByteArray("\0\0\0\1\1", 5) + kZero);
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

    void readingAResultReplacesEveryField()
    {
        OperationResult result = filledResult();
        QCOMPARE(read(written(OperationResult()), result), QDataStream::Ok);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, true);
        QCOMPARE(result.message, QString());
    }

    void succeededIsCodeOneWithoutAMessage()
    {
        const OperationResult result = OperationResult::succeeded();
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, true);
        QCOMPARE(result.message, QString());
    }

    void failedIsCodeOneWithTheMessage()
    {
        const OperationResult result = OperationResult::failed(QStringLiteral("warning.x"));
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, false);
        QCOMPARE(result.message, QStringLiteral("warning.x"));
    }

    void defaultServerHasNoIdAndNoPorts()
    {
        const VpnServerInformation server;
        QCOMPARE(server.id, -1);
        QCOMPARE(server.udpPort, 0);
        QCOMPARE(server.tcpPort, 0);
        QCOMPARE(server.name + server.info + server.host + server.ca + server.key + server.cert,
                 QString());
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

    void readingAServerTakesExactlyItsBytes()
    {
        QDataStream stream(filledServerBytes() + QByteArray("rest"));
        VpnServerInformation server;
        stream >> server;
        QCOMPARE(stream.device()->readAll(), QByteArray("rest"));
    }

    void integersFollowTheByteOrderOfTheStream()
    {
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        stream.setByteOrder(QDataStream::LittleEndian);
        stream << OperationResult{0x01020304, true, QStringLiteral("")};
        QCOMPARE(bytes, QByteArray("\4\3\2\1\1\0\0\0\0", 9));
    }

    void extremeNumbersSurviveTheWire_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("largest") << INT_MAX;
        QTest::newRow("smallest") << INT_MIN;
        QTest::newRow("minus one") << -1;
    }

    void extremeNumbersSurviveTheWire()
    {
        QFETCH(int, number);
        VpnServerInformation server = filledServer();
        server.id = server.udpPort = server.tcpPort = number;
        VpnServerInformation copy;
        QCOMPARE(read(written(server), copy), QDataStream::Ok);
        QCOMPARE(copy.id, number);
        QCOMPARE(copy.udpPort, number);
        QCOMPARE(copy.tcpPort, number);
    }

    void everyTruncatedResultIsReportedByTheStream()
    {
        const QByteArray bytes = filledResultBytes();
        for (int length = 0; length < bytes.size(); ++length) {
            OperationResult result;
            QVERIFY2(read(bytes.left(length), result) == QDataStream::ReadPastEnd,
                     qPrintable(QString::number(length)));
        }
    }

    void everyTruncatedServerIsReportedByTheStream()
    {
        const QByteArray bytes = filledServerBytes();
        for (int length = 0; length < bytes.size(); ++length) {
            VpnServerInformation server;
            QVERIFY2(read(bytes.left(length), server) == QDataStream::ReadPastEnd,
                     qPrintable(QString::number(length)));
        }
    }

    void textLongerThanTheInputIsReportedByTheStream()
    {
        OperationResult result;
        QCOMPARE(read(QByteArray("\0\0\0\1\1\x7f\xff\xff\xfe", 9), result),
                 QDataStream::ReadPastEnd);
        QCOMPARE(result.message, QString());
    }

    void textWithAnOddByteCountIsReportedByTheStream()
    {
        OperationResult result;
        QCOMPARE(read(QByteArray("\0\0\0\1\1\0\0\0\3\0a\0", 12), result),
                 QDataStream::ReadCorruptData);
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

    void interfacesHaveNoProperties()
    {
        QCOMPARE(ownProperties(IpcInterfaceSource::staticMetaObject), 0);
        QCOMPARE(ownProperties(ServiceInterfaceSource::staticMetaObject), 0);
        QCOMPARE(ownProperties(IpcInterfaceReplica::staticMetaObject), 0);
        QCOMPARE(ownProperties(ServiceInterfaceReplica::staticMetaObject), 0);
    }

    void slotsOfTheSourcesAreForTheSubclass()
    {
        QVERIFY(std::is_abstract_v<IpcInterfaceSource>);
        QVERIFY(std::is_abstract_v<ServiceInterfaceSource>);
    }

    void mainSocketHasItsName()
    {
        QCOMPARE(shared::getIpcServiceUrl(),
                 QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface"));
    }

    void endpointSocketIsNamedByItsNumber_data()
    {
        QTest::addColumn<int>("number");
        QTest::addColumn<QString>("url");
        QTest::newRow("1") << 1 << QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_1");
        QTest::newRow("12") << 12 << QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_12");
        QTest::newRow("0") << 0 << QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_0");
        QTest::newRow("-1") << -1 << QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_-1");
        QTest::newRow("largest, without separators")
            << INT_MAX << QStringLiteral("/tmp/local:TalvexFreeVpnIpcInterface_2147483647");
        QTest::newRow("smallest") << INT_MIN
                                  << QStringLiteral(
                                         "/tmp/local:TalvexFreeVpnIpcInterface_-2147483648");
    }

    void endpointSocketIsNamedByItsNumber()
    {
        QFETCH(int, number);
        QFETCH(QString, url);
        QCOMPARE(shared::getIpcProcessUrl(number), url);
    }
};

QTEST_GUILESS_MAIN(IpcRecords)
#include "tst_records.moc"
