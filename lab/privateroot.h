#pragma once

namespace lab {

/// @return whether this process sees a private root (lab/private-root), which alone has this mark.
bool isPrivateRoot();

/// Empties the folders that the daemon and the stand-ins write to, as a new private root has them,
/// and ends the stand-ins for openvpn that are left. For `init()`: no test function finds what
/// another one left. What a test changes in /sbin it changes back itself.
void resetPrivateRoot();

} // namespace lab
