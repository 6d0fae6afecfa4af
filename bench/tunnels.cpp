#include "measurements.h"
#include "session.h"
#include "subject.h"

#include <cmath>

namespace {

constexpr int kConnects = 30;
constexpr int kDisconnects = 20;
constexpr double kPollMs = 500;
constexpr double kAnswerSlackMs = 20;
constexpr double kDisconnectSlackMs = 20;

Result connects(session::Transport transport)
{
    const session::Lab lab;
    const VpnServerInformation server = lab.server();
    const Daemon daemon(Daemon::Openvpn::Real);
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    const QString configuration =
        session::configurationFrom(daemon.pid(), client, server, transport);

    QVector<double> answers;
    QVector<double> bare;
    for (int n = 0; n < kConnects; ++n) {
        bare.append(session::runBare(configuration).untilSuccess);
        answers.append(session::mustConnect(client, server, transport));
        session::mustDisconnect(client);
    }

    // The poll at which openvpn alone, at its median, would have been found to be up.
    const double poll = std::ceil(median(bare) / kPollMs) * kPollMs;
    Result result =
        pairedResult(QStringLiteral("ms"), answers, bare, Bar::atMost(poll + kAnswerSlackMs));
    result.measured = quantile(answers, 0.9);
    int within = 0;
    for (const double answer : answers)
        within += answer <= poll + kAnswerSlackMs;
    result.remark =
        QStringLiteral("9th decile; median %1 ms, worst %2 ms, %3 of %4 within the bar; "
                       "the poll is at %5 ms; openvpn alone took %6 ms at worst")
            .arg(median(answers), 0, 'f', 1)
            .arg(quantile(answers, 1), 0, 'f', 1)
            .arg(within)
            .arg(answers.size())
            .arg(poll)
            .arg(quantile(bare, 1), 0, 'f', 1);
    return result;
}

Result disconnects(Daemon::Openvpn openvpn, const VpnServerInformation &server)
{
    const Daemon daemon(openvpn);
    Client client;
    require(client.attachToNewEndpoint(), "the client could not attach");
    const QString configuration = session::configurationFrom(daemon.pid(), client, server);

    QVector<double> measured;
    QVector<double> baseline;
    for (int n = 0; n < kDisconnects; ++n) {
        const double end = session::runBare(configuration).untilEnd;
        baseline.append(end + session::runRestoreScript());
        session::mustConnect(client, server);
        measured.append(session::mustDisconnect(client));
    }
    Result result = pairedResult(QStringLiteral("ms"), measured, baseline,
                                 Bar::baselinePlus(kDisconnectSlackMs));
    result.remark = QStringLiteral("worst %1 ms, of the baseline %2 ms")
                        .arg(quantile(measured, 1), 0, 'f', 1)
                        .arg(quantile(baseline, 1), 0, 'f', 1);
    return result;
}

} // namespace

Result udpConnect()
{
    return connects(session::Transport::Udp);
}

Result tcpConnect()
{
    return connects(session::Transport::Tcp);
}

Result disconnectAtOnce()
{
    return disconnects(Daemon::Openvpn::StandIn,
                       session::standIn(QStringLiteral("prints-at-once-success")));
}

Result disconnectReal()
{
    const session::Lab lab;
    return disconnects(Daemon::Openvpn::Real, lab.server());
}
