#include "client.h"
#include "configtext.h"
#include "daemonprocess.h"
#include "hostilerecords.h"
#include "vpnlab.h"

#include <QtCore/QDir>
#include <QtTest/QtTest>

#include <memory>
#include <vector>

using hostilerecords::Record;
using vpncore::OvpnConnection;

namespace {

/// The longest that one request takes, and then some for a busy machine.
constexpr int kRequestLimitMs = 60'000;

const QLatin1String kFolder("/tmp/hostile");
const QLatin1String kLeaveTrace("/tmp/hostile/leave-trace");

void mustWrite(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()
        || !file.setPermissions(file.permissions() | QFile::ExeUser | QFile::ReadUser))
        qFatal("cannot write %s", qPrintable(path));
}

/// @return a directive that makes openvpn leave the trace "ran.N", in one of several ways.
QString directive(const QString &field, int n)
{
    const QString script = QStringLiteral("%1 %2").arg(kLeaveTrace).arg(n);
    QStringList ways{QStringLiteral("plugin " TALVEX_HOSTILE_PLUGIN " ") + script,
                     QStringLiteral("route-up \"%1\"").arg(script),
                     QStringLiteral("tls-verify \"%1\"").arg(script),
                     QStringLiteral("ipchange \"%1\"").arg(script),
                     QStringLiteral("config %1/%2.conf").arg(kFolder).arg(n)};
    // The template's own line comes after the host and would win.
    if (field != QLatin1String("host"))
        ways.append(QStringLiteral("up \"%1\"").arg(script));
    mustWrite(QStringLiteral("%1/%2.conf").arg(kFolder).arg(n),
              "script-security 2\nroute-up \"" + script.toLatin1() + "\"\n");
    return ways.at(n % ways.size());
}

QVector<Record> hostileRecords(const QString &field)
{
    return hostilerecords::of(field, vpnlab::server(),
                              [&field](int n) { return directive(field, n); });
}

QStringList traces()
{
    return QDir(kFolder).entryList({QStringLiteral("ran.*")});
}

QByteArray traceOf(int n)
{
    QFile file(QStringLiteral("%1/ran.%2").arg(kFolder).arg(n));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// A client with an endpoint of its own, which sends one record.
bool sendTo(std::vector<std::unique_ptr<Client>> &clients, const Record &record)
{
    clients.push_back(std::make_unique<Client>());
    if (!clients.back()->attachToNewEndpoint())
        return false;
    clients.back()->connectUdp(record.server);
    return true;
}

} // namespace

/// Records that try to make the real openvpn run a script as root.
class DaemonHostileRecords : public QObject
{
    Q_OBJECT

private:
    void sendAll(const QString &field)
    {
        const QVector<Record> records = hostileRecords(field);
        QVERIFY(records.size() >= 20);
        DaemonProcess daemon(DaemonProcess::Openvpn::Real);
        QVERIFY(daemon.start());
        std::vector<std::unique_ptr<Client>> clients;
        for (const Record &record : records)
            QVERIFY(sendTo(clients, record));
        for (int n = 0; n < records.size(); ++n) {
            QTRY_VERIFY2_WITH_TIMEOUT(!clients.at(static_cast<std::size_t>(n))->answers().isEmpty(),
                                      qPrintable(records.at(n).name), kRequestLimitMs);
        }
        QCOMPARE(traces(), QStringList());

        // None of the silence is the openvpn's fault: it has run, and with these very records.
        const QStringList outputs = daemon.linesWith(QStringLiteral("outputString:  \""));
        const auto silent = outputs.count(QStringLiteral("outputString:  \"\""));
        QVERIFY2(outputs.size() - silent >= records.size(), qPrintable(outputs.join(u'\n')));
        QVERIFY(daemon.isRunning());
        const int left = daemon.count(QStringLiteral("Left out of the configuration, since it "
                                                     "could be read as something else: ")
                                      + field);
        QVERIFY2(left >= 20, qPrintable(QString::number(left)));
    }

    /// The same records past the checks, one after the other.
    void runAllUnchecked(const QString &field)
    {
        const QVector<Record> records = hostileRecords(field);
        OvpnConnection connection;
        for (int n = 0; n < records.size(); ++n) {
            if (!records.at(n).isInjection)
                continue;
            const QString text = configtext::unchecked(OvpnConnection::Udp, records.at(n).server);
            connection.connect(text, QStringLiteral("UDP"));
            QTRY_VERIFY2(!traceOf(n).isEmpty(), qPrintable(records.at(n).name));
            QCOMPARE(traceOf(n).split('\n').first(), QByteArray("uid 0"));
        }
        QVERIFY(traces().size() >= 4);
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(QDir().mkpath(kFolder));
        mustWrite(kLeaveTrace, "#!/bin/bash\necho \"uid $UID\" >>/tmp/hostile/ran.\"$1\"\n");
        QVERIFY(vpnlab::up());
    }

    void cleanup() { QVERIFY(vpnlab::down()); }

    void noHostRunsAnything() { sendAll(QStringLiteral("host")); }
    void noCaRunsAnything() { sendAll(QStringLiteral("ca")); }
    void noCertRunsAnything() { sendAll(QStringLiteral("cert")); }
    void noKeyRunsAnything() { sendAll(QStringLiteral("key")); }

    void everyHostRunsItsScriptWithoutTheChecks() { runAllUnchecked(QStringLiteral("host")); }
    void everyCaRunsItsScriptWithoutTheChecks() { runAllUnchecked(QStringLiteral("ca")); }
    void everyCertRunsItsScriptWithoutTheChecks() { runAllUnchecked(QStringLiteral("cert")); }
    void everyKeyRunsItsScriptWithoutTheChecks() { runAllUnchecked(QStringLiteral("key")); }
};

QTEST_GUILESS_MAIN(DaemonHostileRecords)
#include "daemon_hostile_records.moc"
