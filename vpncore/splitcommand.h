#pragma once

#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace vpncore {

/// A command line taken apart by Qt's quoting rules: blanks separate, double quotes keep together,
/// three double quotes in a row are one that is meant. No shell is involved.
struct SplitCommand
{
    explicit SplitCommand(const QString &text)
        : arguments(QProcess::splitCommand(text))
    {
        if (!arguments.isEmpty())
            program = arguments.takeFirst();
    }

    QString program;
    QStringList arguments;
};

/// Runs a command line, blocks until it ends, and passes on what it prints. Whether it could be
/// started and how it ended is not told: nobody here asks.
void executeCommand(const QString &text);

} // namespace vpncore
