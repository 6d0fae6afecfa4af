#pragma once

#include "operationresult.h"

#include <QtCore/QString>

namespace vpncore {

/// What the VPN core needs of an operating system besides OpenVPN: starting with the user's
/// session, the system's own VPN protocols, and a network kill switch.
///
/// Callers built apart from this code reach the operations by their place in the table of virtual
/// functions. So the order below is fixed, new operations go to the end, and there is no virtual
/// destructor: it would take two places of its own. The destructor is protected instead, so that
/// nobody deletes a platform through this interface, and an implementation is `final`.
class IPlatform
{
public:
    /// @return true when the application starts with the user's session.
    virtual bool isRunOnStart() = 0;

    /// Makes the application start with the user's session, or no longer.
    virtual void setRunOnStart(bool on) = 0;

    /// @return true when connectPptp() answers before the connection is up.
    virtual bool isPptpAsync() = 0;

    /// @return true when connectL2tp() answers before the connection is up.
    virtual bool isL2tpAsync() = 0;

    /// @return true when the system speaks PPTP.
    virtual bool pptpSupports() = 0;

    /// @return true when the system speaks L2TP.
    virtual bool l2tpSupports() = 0;

    /// Takes down what connectPptp() or connectL2tp() has brought up.
    virtual OperationResult disconnect() = 0;

    /// Connects through PPTP: server, user, password.
    virtual OperationResult connectPptp(const QString &server, const QString &user,
                                        const QString &password) = 0;

    /// Connects through L2TP over IPsec.
    virtual OperationResult connectL2tp(const QString &server, const QString &user,
                                        const QString &password, const QString &sharedSecret) = 0;

    /// Connects through IKEv2: server, user, password.
    virtual OperationResult connectIKEv2(const QString &server, const QString &user,
                                         const QString &password) = 0;

    /// Kill switch on: no traffic leaves this computer.
    virtual OperationResult turnOffInternet() = 0;

    /// Kill switch off.
    /// @param done set to true once there is nothing more to do.
    virtual OperationResult turnOnInternet(bool &done) = 0;

    /// @return true when there are network devices that the kill switch has disabled.
    virtual bool haveDisabledNetDevicesByKillSwitch() = 0;

    /// Enables the network devices that the kill switch has disabled.
    /// @return true when there was something to enable.
    virtual bool turnOnNetDevices() = 0;

protected:
    ~IPlatform() = default;
};

} // namespace vpncore
