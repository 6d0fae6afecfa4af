#pragma once

#include <QtCore/QByteArray>

/// What the fuzz targets share: the entry of libFuzzer, in a process with an application object and
/// a log that says nothing.
namespace fuzz {

/// What a target does with an input; each target has its own.
void run(const QByteArray &input);

/// Ends the process with a message, so that libFuzzer keeps the input.
[[noreturn]] void fail(const char *what, const QByteArray &details = {});

} // namespace fuzz
