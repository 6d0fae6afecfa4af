#pragma once

#include <QtCore/QtGlobal>

/// A descriptor that the daemon holds for a user, a connection's or an endpoint's. What all users
/// hold is counted together, so that none takes what the others need.
class UserShare
{
public:
    /// @return whether @p user may have one more: root always, anybody else up to half of the
    ///         descriptors that the process may have, less guard::kTunnelDescriptors.
    static bool isLeftFor(quint32 user);

    explicit UserShare(quint32 user);
    ~UserShare();
    UserShare(const UserShare &) = delete;
    UserShare &operator=(const UserShare &) = delete;

private:
    quint32 m_user;
};
