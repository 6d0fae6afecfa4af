#include "dnsrestorer.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using namespace std::chrono_literals;

/// When a restore runs again. The pauses are a twentieth of the real ones.
class DnsRestorerRepetitions : public QObject
{
    Q_OBJECT

private:
    bool m_hasBackups = true;
    QVector<qint64> m_restores; ///< when they ran
    QElapsedTimer m_clock;
    QScopedPointer<vpncore::DnsRestorer> m_restorer;

private Q_SLOTS:
    void init()
    {
        m_hasBackups = true;
        m_restores.clear();
        m_clock.start();
        m_restorer.reset(new vpncore::DnsRestorer([this] { m_restores.append(m_clock.elapsed()); },
                                                  [this] { return m_hasBackups; }, {50ms, 200ms, 4},
                                                  nullptr));
    }

    void pausesAreThoseOfTheManual()
    {
        const vpncore::DnsRestorer::Limits limits;
        QCOMPARE(limits.firstPause.count(), 1'000);
        QCOMPARE(limits.longestPause.count(), 60'000);
        QCOMPARE(limits.repetitions, 10);
    }

    void restoreIsRepeatedWithGrowingPausesWhileBackupsAreLeft()
    {
        m_restorer->restore();
        QTRY_COMPARE(m_restores.size(), 5);
        QTest::qWait(300);
        QCOMPARE(m_restores.size(), 5);
        const QVector<int> pauses{50, 100, 200, 200};
        for (int i = 0; i < 4; ++i)
            QVERIFY(m_restores.at(i + 1) - m_restores.at(i) >= pauses.at(i) * 9 / 10);
        // Every restore begins anew, with the first pause.
        m_restorer->restore();
        QTRY_COMPARE(m_restores.size(), 10);
        QVERIFY(m_restores.at(6) - m_restores.at(5) < 170);
    }

    void repetitionsEndWhenNothingIsLeft()
    {
        m_restorer->watch();
        QTRY_COMPARE(m_restores.size(), 2);
        m_hasBackups = false;
        QTest::qWait(300);
        QCOMPARE(m_restores.size(), 2);
    }

    void nothingIsRepeatedWhileATunnelIsUpOrComing()
    {
        QProcess openvpn;
        openvpn.start("/bin/cat", QStringList());
        QVERIFY(openvpn.waitForStarted());
        m_restorer->pauseWhileRunning(openvpn);
        m_restorer->watch();
        QTest::qWait(150);
        QCOMPARE(m_restores.size(), 0);
        openvpn.closeWriteChannel();
        QVERIFY(openvpn.waitForFinished());
        m_restorer->watch();
        QTRY_COMPARE(m_restores.size(), 1);
    }
};

QTEST_GUILESS_MAIN(DnsRestorerRepetitions)
#include "tst_dnsrestorer.moc"
