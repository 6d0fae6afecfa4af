#include "logcapture.h"
#include "standins.h"
#include "ovpnconnection.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QtTest>

using standins::serverFor;
using vpncore::OvpnConnection;

namespace {

const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");
const QString kTimeOut = QStringLiteral("warning.open_vpn_connection_time_out");
const QString kNoResponse = QStringLiteral("warning.open_vpn_server_does_not_respond");
const QString kCannotStart = QStringLiteral("warning.open_vpn_running_fails_check_apps");

const QString kSeparator =
    QStringLiteral("\r\n----------------- New Connection -----------------\r\n");

QString programPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/openvpn");
}

} // namespace

/// What one connect request does with each way in which `openvpn` can behave, against the real
/// limits. Every function runs in a private root of its own.
class OvpnConnectionAttempts : public QObject
{
    Q_OBJECT

private:
    /// Connects over UDP and notes result and duration.
    OperationResult connectTo(const QString &scenario)
    {
        QElapsedTimer timer;
        timer.start();
        const OperationResult result = m_connection->connectUdp(serverFor(scenario));
        m_duration = timer.elapsed();
        return result;
    }

    QScopedPointer<OvpnConnection> m_connection;
    QScopedPointer<LogCapture> m_log;
    qint64 m_duration = 0;

private Q_SLOTS:
    void init()
    {
        m_log.reset(new LogCapture);
        m_connection.reset(new OvpnConnection);
    }

    void cleanup()
    {
        m_connection.reset();
        m_log.reset();
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void successLineConnects()
    {
        const OperationResult result = connectTo(QStringLiteral("prints-at-once-success"));
        QVERIFY(result.success);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.message, QString());
        QVERIFY2(m_duration >= 500 && m_duration < 1500, qPrintable(QString::number(m_duration)));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void attemptLogsItsCourse()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        const QStringList lines = m_log->lines();
        QVERIFY(
            m_log->lines(QtWarningMsg).contains(QStringLiteral("Resources folder doesn't exist")));

        const int start = lines.indexOf(kSeparator);
        QVERIFY(start >= 0);
        const QString configName = lines.at(start + 1)
                                       .section(QStringLiteral("--config \\\""), 1)
                                       .section(QLatin1Char('\\'), 0, 0);
        QVERIFY(!configName.isEmpty());
        const QString quoted = QLatin1Char('"') + programPath() + QLatin1Char('"');
        QCOMPARE(lines.at(start + 1),
                 quoted + QStringLiteral(" \"\\\"") + programPath()
                     + QStringLiteral("\\\" --config \\\"") + configName
                     + QStringLiteral("\\\"\""));
        QCOMPARE(lines.at(start + 2), QStringLiteral("openvpn state:  QProcess::Running"));
        QVERIFY(lines.at(start + 3).startsWith(QStringLiteral("outputString:  \"")));
        QVERIFY(lines.at(start + 3).contains(QStringLiteral("Initialization Sequence Completed")));
        QCOMPARE(lines.at(start + 4), QStringLiteral("readAll:  \"\""));
    }

    void openvpnGetsOneArgumentPairAndTheConfiguration()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        const auto starts = standins::openvpnStarts();
        QCOMPARE(starts.size(), 1);
        const QStringList words = starts.first().arguments;
        QCOMPARE(words.size(), 3);
        QCOMPARE(words.at(0), programPath());
        QCOMPARE(words.at(1), QStringLiteral("--config"));
        const QByteArray config = standins::configurationOf(starts.first());
        QVERIFY(config.startsWith("client \ndev tun \nproto udp\n"));
        QVERIFY(config.contains("remote prints-at-once-success 1194\n"));
        QVERIFY(config.endsWith("</key>\n"));
    }

    void configurationFileIsPrivateAndGoneAfterwards()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        const auto start = standins::openvpnStarts().first();
        QCOMPARE(standins::configurationModeOf(start), QByteArray("600"));
        const QString path = start.arguments.at(2);
        QVERIFY2(!QFile::exists(path), qPrintable(path));
        QCOMPARE(QDir(QDir::tempPath()).entryList(QDir::Files), QStringList());
    }

    void tcpUsesItsPortAndName()
    {
        QVERIFY(
            m_connection->connectTcp(serverFor(QStringLiteral("prints-at-once-success"))).success);
        const QByteArray config = standins::configurationOf(standins::openvpnStarts().first());
        QVERIFY(config.contains("proto tcp\nremote prints-at-once-success 443\n"));
    }

    void silentServerIsGivenUpAfterTenSeconds()
    {
        const OperationResult result = connectTo(QStringLiteral("silent"));
        QVERIFY(!result.success);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.message, kNoResponse);
        QVERIFY2(m_duration >= 10'000 && m_duration < 11'000,
                 qPrintable(QString::number(m_duration)));
        QCOMPARE(m_log->count(QStringLiteral("openvpn state:  QProcess::Running")), 20);
    }

    void closedOutputCountsAsSilence()
    {
        const OperationResult result = connectTo(QStringLiteral("only-empty"));
        QCOMPARE(result.message, kNoResponse);
        QVERIFY(m_duration >= 10'000 && m_duration < 11'000);
    }

    void undecidedOutputIsGivenUpAfterSixteenSeconds()
    {
        const OperationResult result = connectTo(QStringLiteral("chatty"));
        QVERIFY(!result.success);
        QCOMPARE(result.message, kTimeOut);
        QVERIFY2(m_duration >= 16'000 && m_duration < 17'500,
                 qPrintable(QString::number(m_duration)));
        QCOMPARE(m_log->count(QStringLiteral("Connecting timeout, stop processing")), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void oneLineBeforeTenSecondsEarnsSixteen()
    {
        const OperationResult result = connectTo(QStringLiteral("late-first-output"));
        QCOMPARE(result.message, kTimeOut);
        QVERIFY(m_duration >= 16'000 && m_duration < 17'500);
    }

    void lateSuccessIsASuccess()
    {
        QVERIFY(connectTo(QStringLiteral("late-success")).success);
        QVERIFY(m_duration >= 12'000 && m_duration < 13'500);
    }

    void successAfterMoreThanSixteenSecondsInAllIsASuccess()
    {
        QVERIFY(connectTo(QStringLiteral("exits-late-then-late-success")).success);
        QVERIFY2(m_duration >= 19'000 && m_duration < 21'500,
                 qPrintable(QString::number(m_duration)));
        QCOMPARE(standins::openvpnStarts().size(), 2);
        QCOMPARE(m_log->count(QStringLiteral("Connecting timeout, stop processing")), 0);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void onlyAProgramThatEndsByItselfIsToBeTriedAgain_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<bool>("retry");
        QTest::newRow("ends") << QStringLiteral("exits-at-once") << kAttemptFailed << true;
        QTest::newRow("reports an error") << QStringLiteral("error") << kAttemptFailed << false;
        QTest::newRow("connects") << QStringLiteral("prints-at-once-success") << QString() << false;
        QTest::newRow("is silent") << QStringLiteral("silent") << kNoResponse << false;
    }

    void onlyAProgramThatEndsByItselfIsToBeTriedAgain()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, outcome);
        QFETCH(bool, retry);
        bool retryWanted = !retry;
        const OperationResult result = m_connection->tryConnectOneTime(
            QStringLiteral("remote %1 1194\n").arg(scenario), QStringLiteral("UDP"), retryWanted);
        QCOMPARE(result.success, outcome.isEmpty());
        QCOMPARE(result.message, outcome);
        QCOMPARE(retryWanted, retry);
    }

    void markerSplitOverTwoWritesIsFound()
    {
        QVERIFY(connectTo(QStringLiteral("split-marker")).success);
    }

    void errorEndsTheAttemptAtOnce_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("ERROR") << QStringLiteral("error");
        QTest::newRow("failed, will try again in") << QStringLiteral("will-retry");
    }

    void errorEndsTheAttemptAtOnce()
    {
        QFETCH(QString, scenario);
        const OperationResult result = connectTo(scenario);
        QVERIFY(!result.success);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.message, kAttemptFailed);
        QVERIFY(m_duration < 2'000);
        QCOMPARE(standins::openvpnStarts().size(),
                 QByteArray(QTest::currentDataTag()) == "ERROR" ? 1 : 2);
    }

    void failedAttemptLeavesItsProcessToTheNextDisconnect()
    {
        QVERIFY(!connectTo(QStringLiteral("error")).success);
        QCOMPARE(standins::runningOpenvpns(), 1);
        QVERIFY(m_connection->disconnect().success);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void successWinsOverAnError()
    {
        QVERIFY(connectTo(QStringLiteral("success-and-error")).success);
    }

    void failedIpv6CommandExcusesEveryError()
    {
        const OperationResult result = connectTo(QStringLiteral("ipv6-error"));
        QCOMPARE(result.message, kTimeOut);
        QVERIFY(m_duration >= 16'000);
    }

    void successAfterAFailedIpv6CommandConnects()
    {
        QVERIFY(connectTo(QStringLiteral("ipv6-error-then-success")).success);
    }

    void programThatEndsByItselfIsTriedForSixteenSeconds()
    {
        const OperationResult result = connectTo(QStringLiteral("exits-at-once"));
        QVERIFY(!result.success);
        QCOMPARE(result.message, kTimeOut);
        QVERIFY2(m_duration >= 16'000 && m_duration < 17'500,
                 qPrintable(QString::number(m_duration)));
        const int attempts = m_log->count(kSeparator);
        // Each attempt waits out one poll period of 500 ms.
        QVERIFY2(attempts >= 24 && attempts <= 32, qPrintable(QString::number(attempts)));
        QCOMPARE(standins::openvpnStarts().size(), attempts);
        QCOMPARE(m_log->count(QStringLiteral("openvpn state:  QProcess::NotRunning")), attempts);
        QCOMPARE(m_log->count(QStringLiteral("Connecting timeout, stop processing")), 1);
    }

    void timeOutKeyTravelsWithoutAPlaceForTheProtocol()
    {
        QVERIFY(!connectTo(QStringLiteral("exits-at-once")).success);
        bool warned = false;
        for (const QString &line : m_log->lines(QtWarningMsg))
            warned |= line.startsWith(QStringLiteral("QString::arg: Argument missing"));
        QVERIFY(warned);
    }

    void crashingProgramIsTriedAgain()
    {
        const OperationResult result = connectTo(QStringLiteral("crashes"));
        QCOMPARE(result.message, kTimeOut);
        QVERIFY(standins::openvpnStarts().size() > 10);
    }

    void retriesEndWithTheFirstSuccess()
    {
        QVERIFY(connectTo(QStringLiteral("exits-twice-then-connects")).success);
        QCOMPARE(standins::openvpnStarts().size(), 3);
        QCOMPARE(m_log->count(kSeparator), 3);
    }

    void missingProgramFailsAtOnce()
    {
        // The executable moves to a folder of its own that has no openvpn.
        QProcess self;
        self.start(QStringLiteral("/bin/bash"),
                   {QStringLiteral("-c"),
                    QStringLiteral("mkdir -p /var/root/alone && cp \"$0\" /var/root/alone/ && "
                                   "exec \"/var/root/alone/${0##*/}\" missingProgramInOwnFolder"),
                    QCoreApplication::applicationFilePath()});
        QVERIFY(self.waitForFinished(20'000));
        QVERIFY2(self.exitCode() == 0, self.readAllStandardOutput().constData());
    }

    /// Run by the test above in a folder without openvpn; elsewhere it has nothing to look at.
    void missingProgramInOwnFolder()
    {
        if (QFile::exists(programPath())) {
            QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
            return;
        }
        const OperationResult result = connectTo(QStringLiteral("silent"));
        QVERIFY(!result.success);
        QCOMPARE(result.message, kCannotStart);
        QVERIFY(m_duration < 500);
    }

    void textAfterAZeroByteIsNotSeen()
    {
        const OperationResult result = connectTo(QStringLiteral("nul-bytes"));
        QVERIFY(!result.success);
        QVERIFY(m_log->lines().contains(QStringLiteral("outputString:  \"before\"")));
    }

    void laterTextIsSeenDespiteAZeroByte()
    {
        QVERIFY(connectTo(QStringLiteral("nul-then-success")).success);
    }

    void oldWordsOfAConfigurationAreReplaced()
    {
        const QString text = QStringLiteral("remote prints-at-once-success 1\nverb 0\n"
                                            "compress lzo\nverb 0\n");
        QVERIFY(m_connection->connect(text, QStringLiteral("UDP")).success);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts().first()),
                 QByteArray("remote prints-at-once-success 1\nverb 1\ncomp-lzo\nverb 1\n"));
        QCOMPARE(m_log->count(QStringLiteral("replace verb 1")), 1);
        QCOMPARE(m_log->count(QStringLiteral("replace comp-lzo")), 1);
    }

    void otherConfigurationsAreWrittenUnchanged()
    {
        const QString text = QStringLiteral("remote prints-at-once-success 1\nverb 3\n");
        QVERIFY(m_connection->connect(text, QStringLiteral("UDP")).success);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts().first()), text.toLatin1());
        QCOMPARE(m_log->count(QStringLiteral("replace verb 1")), 0);
        QCOMPARE(m_log->count(QStringLiteral("replace comp-lzo")), 0);
    }

    void charactersBeyondLatin1BecomeQuestionMarks()
    {
        const QString text = QStringLiteral("remote prints-at-once-success 1\n# \u20ac\u0416\n");
        QVERIFY(m_connection->connect(text, QStringLiteral("UDP")).success);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts().first()),
                 QByteArray("remote prints-at-once-success 1\n# ??\n"));
    }

    void configurationEndsAtAZeroCharacter()
    {
        QString text = QStringLiteral("remote prints-at-once-success 1\n");
        text += QChar(QChar::Null);
        text += QStringLiteral("verb 3\n");
        QVERIFY(m_connection->connect(text, QStringLiteral("UDP")).success);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts().first()),
                 QByteArray("remote prints-at-once-success 1\n"));
    }

    void configurationThatCannotBeCreatedIsReported()
    {
        qputenv("TMPDIR", "/usr"); // which is read-only
        const OperationResult result = connectTo(QStringLiteral("prints-at-once-success"));
        QVERIFY(!result.success);
        QCOMPARE(result.message, QStringLiteral("label.can_not_create_config_for_open_vpn"));
        QCOMPARE(standins::openvpnStarts().size(), 0);
    }

    void configurationThatDoesNotFitOnTheDiskIsReportedAndRemoved()
    {
        const QString disk = QStringLiteral("/tmp/disk");
        QVERIFY(QDir().mkdir(disk));
        QCOMPARE(
            QProcess::execute(QStringLiteral("mount"),
                              {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                               QStringLiteral("size=4k"), QStringLiteral("tmpfs"), disk}),
            0);
        qputenv("TMPDIR", disk.toLatin1());
        const QString text = QStringLiteral("remote prints-at-once-success 1\n")
            + QString(20'000, QLatin1Char('#')) + QLatin1Char('\n');
        const OperationResult result = m_connection->connect(text, QStringLiteral("UDP"));
        QVERIFY(!result.success);
        QCOMPARE(result.message, QStringLiteral("label.can_not_create_config_for_open_vpn"));
        QCOMPARE(standins::openvpnStarts().size(), 0);
        QCOMPARE(QDir(disk).entryList(QDir::Files | QDir::Hidden), QStringList());
    }

    void secondConnectReplacesTheFirstTunnel()
    {
        QVERIFY(connectTo(QStringLiteral("connects")).success);
        const qint64 first = standins::openvpnStarts().first().pid;
        QVERIFY(connectTo(QStringLiteral("connects")).success);
        QCOMPARE(standins::openvpnStarts().size(), 2);
        QVERIFY(!standins::isAlive(first));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    void disconnectWithoutProcessLeavesDnsAlone()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.53\n");
        const OperationResult result = m_connection->disconnect();
        QVERIFY(result.success);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.message, QString());
        QCOMPARE(standins::networksetupCalls(), QStringList());
        QCOMPARE(standins::backupFiles(), {QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    void disconnectReturnsAsSoonAsTheProcessHasEndedAndRestoresDns()
    {
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("192.0.2.53")},
                         {QStringLiteral("home.test")});
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");

        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(timer.elapsed() < 1'500);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 (QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}));
        QCOMPARE(standins::backupFiles(), QStringList());
        QCOMPARE(m_log->count(QStringLiteral("result output  true")), 1);
    }

    void disconnectLogsWhatTheProcessStillPrints()
    {
        QVERIFY(connectTo(QStringLiteral("slow-to-stop")).success);
        m_log->clear();
        QVERIFY(m_connection->disconnect().success);
        // A byte array in the debug stream: quoted, its line feed escaped.
        bool logged = false;
        for (const QString &line : m_log->lines())
            logged |= line.startsWith(QLatin1Char('"')) && line.endsWith(QStringLiteral("\\n\""));
        QVERIFY(logged);
    }

    void processThatIgnoresTerminateIsKilledAfterFifteenSeconds()
    {
        QVERIFY(connectTo(QStringLiteral("ignores-term")).success);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY2(timer.elapsed() >= 15'000 && timer.elapsed() < 16'500,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void stoppedProcessIsKilledAfterFifteenSeconds()
    {
        QVERIFY(connectTo(QStringLiteral("stops-itself")).success);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(timer.elapsed() >= 15'000 && timer.elapsed() < 16'500);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void childThatHoldsThePipeDoesNotHoldUpADisconnect()
    {
        QVERIFY(connectTo(QStringLiteral("child-holds-pipe")).success);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(timer.elapsed() < 2'000);
    }

    void floodBeforeTheVerdictIsRead() { QVERIFY(connectTo(QStringLiteral("flood")).success); }

    void destructionStopsTheTunnel()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        QCOMPARE(standins::runningOpenvpns(), 1);
        m_connection.reset();
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void connectionCanBeUsedAgainAtOnce()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        QCOMPARE(standins::openvpnStarts().size(), 2);
    }
};

QTEST_GUILESS_MAIN(OvpnConnectionAttempts)
#include "ovpnconnection_attempts.moc"
