#pragma once

#include <QtCore/QString>

namespace vpnctl {

/// @return how many columns the terminal has to which @p descriptor writes; 0 when it is none.
int terminalWidth(int descriptor);

/// Breaks the lines of a text at blanks.
/// @param width how many characters a line may have; a longer word stays whole. 0 breaks nothing.
/// @param indent how many blanks stand before what is continued.
QString wrapped(const QString &text, int width, int indent = 0);

} // namespace vpnctl
