#include "configtext.h"
#include "files.h"
#include "hostilerecords.h"
#include "privateroot.h"
#include "standins.h"
#include "vpnlab.h"

#include <QtTest/QtTest>

using hostilerecords::Record;
using vpncore::OvpnConnection;

namespace {

const QLatin1String kFolder("/tmp/hostile");
const QLatin1String kLeaveTrace("/tmp/hostile/leave-trace");

/// @return a directive that makes openvpn leave the n-th trace, in one of several ways.
QString directive(const QString &field, int n)
{
    const QString script = QString("%1 %2").arg(kLeaveTrace).arg(n);
    QStringList ways{
        QString("route-up \"%1\"").arg(script), QString("tls-verify \"%1\"").arg(script),
        QString("ipchange \"%1\"").arg(script), QString("config %1/%2.conf").arg(kFolder).arg(n)};
    // The template's own line comes after the host and would win.
    if (field != "host")
        ways.append(QString("up \"%1\"").arg(script));
    lab::writeFile(QString("%1/%2.conf").arg(kFolder).arg(n),
                   "script-security 2\nroute-up \"" + script.toLatin1() + "\"\n");
    return ways.at(n % ways.size());
}

QVector<Record> hostileRecords(const QString &field)
{
    return hostilerecords::of(field, vpnlab::server(),
                              [&field](int n) { return directive(field, n); });
}

/// @return what scripts have left that records named: their numbers, each with the user's id.
QStringList traces()
{
    return QString::fromLatin1(lab::contentOf(kFolder + "/traces")).split('\n', Qt::SkipEmptyParts);
}

/// A run of the real openvpn, with a configuration as the daemon writes it.
class Run : public QProcess
{
public:
    explicit Run(const QString &configText)
    {
        const QString path = kFolder + QString("/openvpn.conf");
        lab::writeFile(path, configtext::written(configText));
        setProcessChannelMode(MergedChannels);
        start("openvpn", {"--config", path});
    }

    ~Run() override
    {
        kill();
        waitForFinished();
    }

    /// @return whether all that the configuration asks for has been done.
    bool isThrough(const QString &field)
    {
        m_output += readAll();
        return state() == NotRunning
            || m_output.contains("Initialization Sequence Completed")
            // Without a host there is no server that could answer.
            || (field == "host"
                && (m_output.contains("link remote: ") || m_output.contains("RESOLVE: ")));
    }

    const QByteArray &output() const { return m_output; }

private:
    QByteArray m_output;
};

} // namespace

/// Records that try to make the real openvpn run a script as root.
class TestHostileRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        lab::resetPrivateRoot();
        QVERIFY(vpnlab::up());
        standins::writeTool("/sbin/networksetup", ""); // nobody looks at DNS settings here
    }

    void init()
    {
        QDir(kFolder).removeRecursively();
        standins::writeTool(kLeaveTrace, "echo \"$1 $UID\" >>/tmp/hostile/traces\n");
    }

    void noRecordRunsAnything_data()
    {
        QTest::addColumn<QString>("field");
        for (const QString &field : hostilerecords::fields())
            QTest::newRow(qPrintable(field)) << field;
    }

    void noRecordRunsAnything()
    {
        QFETCH(QString, field);
        const QVector<Record> records = hostileRecords(field);
        QVERIFY(records.size() >= 16);
        // One after the other: a server drops a client whose certificate another one shows.
        for (const Record &record : records) {
            Run run(configtext::generated(OvpnConnection::Udp, record.server));
            QTRY_VERIFY2_WITH_TIMEOUT(run.isThrough(field), qPrintable(record.name), 10'000);
            // The scripts left no trace although openvpn did run.
            QVERIFY2(!run.output().isEmpty(), qPrintable(record.name));
        }
        QCOMPARE(traces(), QStringList());

        // Without the checks, they do run their scripts, as root.
        int ran = 0;
        for (int n = 0; n < records.size(); ++n) {
            if (!records.at(n).isInjection)
                continue;
            const Run run(configtext::unchecked(OvpnConnection::Udp, records.at(n).server));
            QTRY_VERIFY2_WITH_TIMEOUT(traces().contains(QString("%1 0").arg(n)),
                                      qPrintable(records.at(n).name), 10'000);
            ++ran;
        }
        QVERIFY(ran >= 4);
    }
};

QTEST_GUILESS_MAIN(TestHostileRecords)
#include "tst_hostile_records.moc"
