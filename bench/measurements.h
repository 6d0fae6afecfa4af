#pragma once

#include "report.h"

/// One function a row. Each starts what it measures, and leaves nothing running. Processor time,
/// where a row allows it, because other work on the machine does not count into it; subject and
/// baseline in turns, because the machine's speed changes with time.
///
/// All throw MeasurementFailed, and turn the event loop.

// Waiting
Result processorTimeOfSilentConnect();
Result processorTimeOfIgnoredSigterm();
Result processorTimeOfRunProcess();
Result wakeUpsWithoutClient();
Result wakeUpsWithTunnel();
Result threads();

// Tunnels
Result udpConnect();
Result tcpConnect();
Result disconnectAtOnce();
Result disconnectReal();

// Remote calls and endpoints
Result heartbeats();
Result commandsWithoutEffect();
Result commandsWithoutEffectUnread();
Result endpointCreation();
Result idleEndpointMemory();
Result connectedEndpointMemory();

// Start and size
Result start();
Result idleMemory();
Result binarySize();
