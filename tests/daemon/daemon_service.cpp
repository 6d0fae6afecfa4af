#include <QtTest/QtTest>
class DaemonService : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void x() { QVERIFY(true); }
};
QTEST_GUILESS_MAIN(DaemonService)
#include "daemon_service.moc"
