#include "commandline.h"

namespace vpncore {

void executeCommandLine(const QString &text)
{
    const CommandLine command(text);
    QProcess::execute(command.program, command.arguments);
}

} // namespace vpncore
