#pragma once

#include <QtCore/QString>

#include <sys/resource.h>

/// Figures of processes, and what the tests need to take them.
namespace measures {

/// @param field of a file of /proc/PID, for example "VmRSS", or "VmStk" for how far the stack has
///              grown, or in "smaps_rollup" "Pss" for memory in which each page is divided by the
///              number of processes that share it.
/// @return its value, memory in KiB; -1 when there is none.
qint64 statusOf(qint64 pid, const QString &field, const QString &file = QStringLiteral("status"));

/// @return whether resident memory has grown by less than @p limitKiB, always true with the
///         sanitizers, which keep freed memory back; prints by how much.
bool growsByLess(qint64 beforeKiB, qint64 nowKiB, qint64 limitKiB);

/// @return what all threads of a process have used so far, user and system, in milliseconds; -1
///         when it has ended.
double processorTime(qint64 pid);

/// Lets this process, and those that it starts, open as many descriptors.
/// @return false when the machine does not allow it.
bool allowDescriptors(rlim_t number);

/// Lets this process open so many descriptors more and not one beyond, while it lives.
class FewDescriptors
{
public:
    explicit FewDescriptors(int left);
    ~FewDescriptors();
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

private:
    rlimit m_former = {};
};

} // namespace measures
