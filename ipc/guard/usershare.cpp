#include "usershare.h"

#include "guardlimits.h"
#include "peeruser.h"

#include <QtCore/QHash>

#include <unistd.h>

namespace {

QHash<quint32, int> shares; ///< the descriptors of each user who has any

} // namespace

bool UserShare::isLeftFor(quint32 user)
{
    const long limit = ::sysconf(_SC_OPEN_MAX);
    return user == kRootUser || limit < 0
        || shares.value(user) < limit / 2 - guard::kTunnelDescriptors;
}

UserShare::UserShare(quint32 user)
    : m_user(user)
{
    ++shares[user];
}

UserShare::~UserShare()
{
    const auto share = shares.find(m_user);
    if (--*share == 0)
        shares.erase(share);
}
