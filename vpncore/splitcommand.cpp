#include "splitcommand.h"

namespace vpncore {

void executeCommand(const QString &text)
{
    const SplitCommand command(text);
    QProcess::execute(command.program, command.arguments);
}

} // namespace vpncore
