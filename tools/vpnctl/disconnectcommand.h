#pragma once

#include "command.h"

namespace vpnctl {

/// Takes the tunnel of an endpoint down.
class DisconnectCommand : public Command
{
    Q_OBJECT

public:
    DisconnectCommand(const Options &options, Report &report);
    void start() override;

protected:
    QString activity(std::chrono::milliseconds elapsed) const override;

private:
    void handleAnswer(const QString &message, const OperationResult &result);
};

} // namespace vpnctl
