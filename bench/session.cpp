#include "session.h"

#include "subject.h"
#include "dnsscripts.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>

namespace session {

namespace {

using namespace std::chrono_literals;

constexpr auto kAnswerLimit = 40s;
constexpr auto kBareLimit = 20s;

double milliseconds(const QElapsedTimer &timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

/// Waits until the client has had more than @p answers.
void waitForAnswer(const Client &client, int answers)
{
    require(vpncore::waitUntil(kAnswerLimit, [&] { return client.answers().size() > answers; }),
            "no answer came");
}

void send(Client &client, const VpnServerInformation &server, Transport transport)
{
    if (transport == Transport::Udp)
        client.connectUdp(server);
    else
        client.connectTcp(server);
}

void mustBeSuccess(const Client &client)
{
    require(client.answers().last().result.success, "the answer is a failure");
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString labFolder()
{
    return QDir::tempPath() + QStringLiteral("/lab");
}

bool runLab(const QString &verb)
{
    QProcess lab;
    lab.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    lab.start(QStringLiteral(TALVEX_VPN_LAB), {verb, labFolder()});
    return lab.waitForFinished() && lab.exitCode() == 0;
}

/// @return the file that a child of @p daemon has behind "--config"; empty when there is no such
/// child.
QString configurationFileOf(qint64 daemon)
{
    const QByteArray children =
        contentOf(QStringLiteral("/proc/%1/task/%1/children").arg(daemon)).simplified();
    for (const QByteArray &child : children.split(' ')) {
        const QList<QByteArray> arguments =
            contentOf(QStringLiteral("/proc/%1/cmdline").arg(QString::fromLatin1(child)))
                .split('\0');
        if (arguments.size() > 2 && arguments.at(1) == "--config")
            return QString::fromLocal8Bit(arguments.at(2));
    }
    return {};
}

} // namespace

VpnServerInformation standIn(const QString &scenario)
{
    VpnServerInformation server;
    server.host = scenario;
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

bool pollUntil(std::chrono::seconds limit, const std::function<bool()> &isDone)
{
    const QDeadlineTimer deadline(limit);
    while (!isDone()) {
        if (deadline.hasExpired())
            return false;
        vpncore::waitUntil(1ms);
    }
    return true;
}

double connect(Client &client, const VpnServerInformation &server, Transport transport)
{
    const int answers = client.answers().size();
    QElapsedTimer timer;
    timer.start();
    send(client, server, transport);
    waitForAnswer(client, answers);
    return milliseconds(timer);
}

double mustConnect(Client &client, const VpnServerInformation &server, Transport transport)
{
    const double time = connect(client, server, transport);
    mustBeSuccess(client);
    return time;
}

double mustDisconnect(Client &client)
{
    const int answers = client.answers().size();
    QElapsedTimer timer;
    timer.start();
    client.disconnectTunnel();
    waitForAnswer(client, answers);
    const double time = milliseconds(timer);
    mustBeSuccess(client);
    return time;
}

Lab::Lab()
{
    require(runLab(QStringLiteral("up")), "the OpenVPN servers could not be started");
}

Lab::~Lab()
{
    runLab(QStringLiteral("down"));
}

VpnServerInformation Lab::server() const
{
    const QJsonObject record =
        QJsonDocument::fromJson(contentOf(labFolder() + QStringLiteral("/record.json"))).object();
    const auto textIn = [&record](QLatin1String key) {
        return QString::fromUtf8(contentOf(record.value(key).toString()));
    };
    VpnServerInformation server;
    server.host = record.value(QLatin1String("host")).toString();
    server.ca = textIn(QLatin1String("ca"));
    server.cert = textIn(QLatin1String("cert"));
    server.key = textIn(QLatin1String("key"));
    server.udpPort = record.value(QLatin1String("udpPort")).toInt();
    server.tcpPort = record.value(QLatin1String("tcpPort")).toInt();
    return server;
}

BareRun runBare(const QString &file)
{
    QProcess openvpn;
    openvpn.setProcessChannelMode(QProcess::MergedChannels);
    QByteArray output;
    QElapsedTimer timer;
    timer.start();
    openvpn.start(Daemon::openvpnProgram(), {QStringLiteral("--config"), file});
    require(vpncore::waitUntil(kBareLimit,
                               [&] {
                                   output += openvpn.readAll();
                                   return output.contains("Initialization Sequence Completed");
                               }),
            "openvpn alone did not come up");
    const double untilSuccess = milliseconds(timer);

    timer.restart();
    openvpn.terminate();
    require(vpncore::waitUntil(kBareLimit, [&] { return openvpn.state() == QProcess::NotRunning; }),
            "openvpn alone did not end");
    return {untilSuccess, milliseconds(timer)};
}

QString configurationFrom(qint64 daemon, Client &client, const VpnServerInformation &server,
                          Transport transport)
{
    const int answers = client.answers().size();
    send(client, server, transport);
    QString file;
    require(pollUntil(kBareLimit,
                      [&] {
                          file = configurationFileOf(daemon);
                          return !file.isEmpty();
                      }),
            "the daemon started no openvpn");
    const QString copy = QDir::tempPath() + QStringLiteral("/configuration");
    QFile::remove(copy);
    require(QFile::copy(file, copy), "the configuration is gone");
    waitForAnswer(client, answers);
    mustBeSuccess(client);
    mustDisconnect(client);
    return copy;
}

double runRestoreScript()
{
    QProcess bash;
    QElapsedTimer timer;
    timer.start();
    bash.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), vpncore::dnsRestoreScript()});
    require(bash.waitForFinished(), "the restore script did not end");
    return milliseconds(timer);
}

} // namespace session
