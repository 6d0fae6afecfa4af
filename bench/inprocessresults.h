#pragma once

#include <QtCore/QString>
#include <QtCore/QVector>

/// Runs a benchmark of the in-process program.
/// @param program the program, which differs in how it waits.
/// @param benchmark its whole name.
/// @return the processor time of each repetition, in milliseconds.
QVector<double> processorMilliseconds(const QString &program, const QString &benchmark,
                                      int repetitions);
