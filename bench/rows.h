#pragma once

#include "result.h"

/// What the machine must provide.
enum class Needs { Nothing, PrivateRoot, Tunnel };

/// One row. It starts what it measures and leaves nothing running. Subject and baseline take turns,
/// because the machine's speed changes with time.
struct Row
{
    const char *number;
    const char *what;
    Needs needs;
    Result (*measure)(); ///< turns the event loop, throws MeasurementFailed
};

using Rows = QVector<Row>;

Rows waitingRows();
Rows tunnelRows();
Rows remoteCallRows();
Rows startAndSizeRows();
