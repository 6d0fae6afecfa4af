#include "peeruser.h"

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

quint32 userOfPeer(int descriptor)
{
    constexpr quint32 kNobody = 0xffffffff;
#ifdef SO_PEERCRED
    ucred peer = {};
    socklen_t size = sizeof peer;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid
                                                                                : kNobody;
#else
    uid_t user = 0;
    gid_t group = 0;
    return ::getpeereid(descriptor, &user, &group) == 0 ? user : kNobody;
#endif
}
