#include "iplatform.h"

#include "iovpnconnection.h"

#include <QtTest/QtTest>

#include <cstring>

using vpncore::IOvpnConnection;
using vpncore::IPlatform;

namespace {

template<typename Function>
int slotOf(Function function)
{
    // A pointer to a virtual function holds the distance of its slot from the table's begin. On
    // some processors the lowest bit tells that it is virtual.
    std::ptrdiff_t distance = 0;
    std::memcpy(&distance, &function, sizeof(distance));
    return static_cast<int>(distance / std::ptrdiff_t(sizeof(void *))) + 1;
}

} // namespace

/// What callers that were built apart rely on.
class IPlatformSlots : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void operationsStandInTheirOrder()
    {
        QCOMPARE(slotOf(&IPlatform::isRunOnStart), 1);
        QCOMPARE(slotOf(&IPlatform::setRunOnStart), 2);
        QCOMPARE(slotOf(&IPlatform::isPptpAsync), 3);
        QCOMPARE(slotOf(&IPlatform::isL2tpAsync), 4);
        QCOMPARE(slotOf(&IPlatform::pptpSupports), 5);
        QCOMPARE(slotOf(&IPlatform::l2tpSupports), 6);
        QCOMPARE(slotOf(&IPlatform::disconnect), 7);
        QCOMPARE(slotOf(&IPlatform::connectPptp), 8);
        QCOMPARE(slotOf(&IPlatform::connectL2tp), 9);
        QCOMPARE(slotOf(&IPlatform::connectIKEv2), 10);
        QCOMPARE(slotOf(&IPlatform::turnOffInternet), 11);
        QCOMPARE(slotOf(&IPlatform::turnOnInternet), 12);
        QCOMPARE(slotOf(&IPlatform::haveDisabledNetDevicesByKillSwitch), 13);
        QCOMPARE(slotOf(&IPlatform::turnOnNetDevices), 14);
        QVERIFY(!std::has_virtual_destructor_v<IPlatform>);
        QCOMPARE(sizeof(IPlatform), sizeof(void *)); // no data

        QVERIFY(std::has_virtual_destructor_v<IOvpnConnection>);
        const int first = slotOf(&IOvpnConnection::connectUdp); // after those of the destructor
        QVERIFY(first > 1);
        QCOMPARE(slotOf(&IOvpnConnection::connectTcp), first + 1);
        QCOMPARE(slotOf(&IOvpnConnection::disconnect), first + 2);
    }
};

QTEST_APPLESS_MAIN(IPlatformSlots)
#include "tst_iplatform.moc"
