#pragma once

#include <QtCore/QtGlobal>

#include <unistd.h>

namespace lab {

/// What this process opens while this lives, it opens as another user. Needs root, and a private
/// root that root has made: one of an ordinary user has no second user.
class AsUser
{
public:
    explicit AsUser(uid_t user)
        : m_isActive(::seteuid(user) == 0)
    {
    }
    ~AsUser()
    {
        if (m_isActive && ::seteuid(0) != 0)
            qFatal("cannot become root again");
    }
    AsUser(const AsUser &) = delete;
    AsUser &operator=(const AsUser &) = delete;

    bool isActive() const { return m_isActive; }

private:
    bool m_isActive;
};

} // namespace lab
