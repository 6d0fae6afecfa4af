#include "textlayout.h"

#include <QtCore/QStringList>

#include <sys/ioctl.h>
#include <unistd.h>

namespace vpnctl {

int terminalWidth(int descriptor)
{
    constexpr int kStandardWidth = 80; // of a terminal that does not tell
    if (!isatty(descriptor))
        return 0;
    winsize size = {};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                        : kStandardWidth;
}

QString wrapped(const QString &text, int width, int indent)
{
    QStringList lines;
    for (QString line : text.split(QLatin1Char('\n'))) {
        while (width > 0 && line.size() > width) {
            int blank = line.lastIndexOf(QLatin1Char(' '), width);
            if (blank <= indent)
                blank = line.indexOf(QLatin1Char(' '), std::max(width, indent));
            if (blank < 0)
                break;
            lines.append(line.left(blank));
            line = QString(indent, QLatin1Char(' ')) + line.mid(blank + 1);
        }
        lines.append(line);
    }
    return lines.join(QLatin1Char('\n'));
}

} // namespace vpnctl
