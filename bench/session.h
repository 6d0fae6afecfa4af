#pragma once

#include "client.h"
#include "eventwait.h"

#include <QtCore/QString>

#include <chrono>
#include <functional>

/// What a client does in the measurements. Everything here turns the event loop until it is done,
/// and throws MeasurementFailed when it does not come to that.
namespace session {

/// @return a record that makes the stand-in for openvpn play @p scenario.
VpnServerInformation standIn(const QString &scenario);

/// Waits for something that is no event of this process, by looking every millisecond.
/// @return false when it did not come in time.
bool pollUntil(std::chrono::seconds limit, const std::function<bool()> &isDone);

enum class Transport { Udp, Tcp };

/// Sends a connect and waits for its answer, whatever it is.
/// @return the milliseconds from command to answer.
double connect(Client &client, const VpnServerInformation &server,
               Transport transport = Transport::Udp);

/// The same, and the answer must be a success.
double mustConnect(Client &client, const VpnServerInformation &server,
                   Transport transport = Transport::Udp);

/// Sends a disconnect and waits for its answer.
/// @return the milliseconds from command to answer.
double mustDisconnect(Client &client);

/// Real OpenVPN servers, as long as this lives.
class Lab
{
public:
    Lab();
    ~Lab();

    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    VpnServerInformation server() const;
};

/// One run of openvpn without the daemon.
struct BareRun
{
    double untilSuccess; ///< milliseconds from before its start to its success line
    double untilEnd; ///< milliseconds from SIGTERM to its end
};

/// Starts the program beside the daemon with the configuration @p file and stops it when it is up.
BareRun runBare(const QString &file);

/// Connects and disconnects once, to get the configuration that the daemon writes.
/// @param daemon its process.
/// @return the name of a copy.
QString configurationFrom(qint64 daemon, Client &client, const VpnServerInformation &server,
                          Transport transport = Transport::Udp);

/// Runs the script that gives the DNS settings back, as the daemon does.
/// @return the milliseconds that it took.
double runRestoreScript();

} // namespace session
