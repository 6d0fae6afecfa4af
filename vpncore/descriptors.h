#pragma once

namespace vpncore {

/// Asks whether the process could have @p count more descriptors open than it has, by opening and
/// closing them (2 * @p count quick system calls), so that every limit there is counts.
///
/// The daemon keeps a reserve, because a local server whose accept(2) fails closes for good: new
/// connections leave enough for a tunnel, and new tunnels leave some for accept(2).
///
/// @param count at most kMostDescriptors.
bool canOpenDescriptors(int count);

constexpr int kMostDescriptors = 64;

} // namespace vpncore
