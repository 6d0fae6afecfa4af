#pragma once

#include <QtCore/QtGlobal>

/// Figures of processes, and what the tests need to take them.
namespace measures {

/// @param field of /proc/PID/status, for example "VmRSS".
/// @return its value, memory in KiB; -1 when there is none.
qint64 statusOf(qint64 pid, const char *field);

/// @return how far the stack of a process has ever grown, in KiB.
qint64 stackKiB(qint64 pid);

/// Lets this process, and those that it starts, open as many descriptors.
/// @return false when the machine does not allow it.
bool allowDescriptors(quint64 number);

/// Whether resident memory tells something about the program: the sanitizers keep freed memory
/// back and put a shadow beside it.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryCounts = false;
#else
constexpr bool kResidentMemoryCounts = true;
#endif

} // namespace measures
