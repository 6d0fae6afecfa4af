#pragma once

#include "result.h"

/// One function a row. Each starts what it measures and leaves nothing running. Subject and
/// baseline take turns, because the machine's speed changes with time.
///
/// All turn the event loop and throw MeasurementFailed.

// waiting.cpp
Result processorTimeOfSilentConnect();
Result processorTimeOfIgnoredSigterm();
Result processorTimeOfRunProcess();
Result wakeUpsWithoutClient();
Result wakeUpsWithTunnel();
Result threads();

// tunnels.cpp
Result udpConnect();
Result tcpConnect();
Result disconnectAtOnce();
Result disconnectReal();

// remotecalls.cpp
Result heartbeats();
Result commandsWithoutEffect();
Result commandsWithoutEffectUnread();
Result endpointCreation();
Result idleEndpointMemory();
Result connectedEndpointMemory();

// startandsize.cpp
Result start();
Result idleMemory();
Result binarySize();
