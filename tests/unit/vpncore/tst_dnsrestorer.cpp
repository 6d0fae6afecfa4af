#include "dnsrestorer.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using vpncore::DnsRestorer;

/// When a restore runs again. The pauses are a twentieth of the real ones.
class DnsRestorerRepetitions : public QObject
{
    Q_OBJECT

private:
    static constexpr std::chrono::milliseconds kFirstPause{50};

    int m_restores = 0;
    bool m_hasBackups = true;
    QVector<qint64> m_times;
    QElapsedTimer m_clock;
    QScopedPointer<DnsRestorer> m_restorer;

private Q_SLOTS:
    void init()
    {
        m_restores = 0;
        m_hasBackups = true;
        m_times.clear();
        m_clock.start();
        m_restorer.reset(new DnsRestorer(
            [this] {
                ++m_restores;
                m_times.append(m_clock.elapsed());
            },
            [this] { return m_hasBackups; }, {kFirstPause, 4 * kFirstPause, 4}, nullptr));
    }

    void pausesAreThoseOfTheManual()
    {
        const DnsRestorer::Limits limits;
        QCOMPARE(limits.firstPause.count(), 1'000);
        QCOMPARE(limits.longestPause.count(), 60'000);
        QCOMPARE(limits.repetitions, 10);
    }

    void restoreRunsOnceWhenNothingIsLeft()
    {
        m_hasBackups = false;
        m_restorer->restore();
        QCOMPARE(m_restores, 1);
        QTest::qWait(150);
        QCOMPARE(m_restores, 1);
    }

    void restoreIsRepeatedWithGrowingPausesWhileBackupsAreLeft()
    {
        m_restorer->restore();
        QTRY_COMPARE(m_restores, 5);
        QTest::qWait(300);
        QCOMPARE(m_restores, 5);
        const QVector<int> pauses{50, 100, 200, 200};
        for (int i = 0; i < 4; ++i)
            QVERIFY(m_times.at(i + 1) - m_times.at(i) >= pauses.at(i) * 9 / 10);
    }

    void repetitionsEndWhenNothingIsLeft()
    {
        m_restorer->watch();
        QTRY_COMPARE(m_restores, 2);
        m_hasBackups = false;
        QTest::qWait(300);
        QCOMPARE(m_restores, 2);
    }

    void everyRestoreBeginsTheCountAnew()
    {
        m_restorer->restore();
        QTRY_COMPARE(m_restores, 5);
        m_restorer->restore();
        QTRY_COMPARE(m_restores, 10);
        QVERIFY(m_times.at(6) - m_times.at(5) < 190); // the first pause, and not the last
    }

    void nothingIsRepeatedWhileATunnelIsUpOrComing()
    {
        QProcess openvpn;
        openvpn.start(QStringLiteral("/bin/cat"), QStringList());
        QVERIFY(openvpn.waitForStarted());
        m_restorer->pauseWhileRunning(openvpn);
        m_restorer->watch();
        QTest::qWait(150);
        QCOMPARE(m_restores, 0);
        openvpn.closeWriteChannel();
        QVERIFY(openvpn.waitForFinished());
        m_restorer->watch();
        QTRY_COMPARE(m_restores, 4);
    }
};

QTEST_GUILESS_MAIN(DnsRestorerRepetitions)
#include "tst_dnsrestorer.moc"
