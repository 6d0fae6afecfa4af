#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

namespace vpnctl {

/// Turns the ways in which the program is asked to stop into a signal from the event loop. There
/// may be one object at a time.
class StopRequests : public QObject
{
    Q_OBJECT

public:
    /// From here on SIGINT, SIGTERM and SIGHUP no longer end the process. Those that are ignored
    /// stay so.
    explicit StopRequests(QObject *parent = nullptr);

    /// Leaves the signals ignored: the process ends already, and its exit status is decided.
    ~StopRequests() override;

    /// Takes the end of the standard input for a request too. Input that is /dev/null, and a
    /// terminal while the program runs in the background, say nothing about anybody's wish and
    /// are not watched.
    void watchStandardInput();

Q_SIGNALS:
    void signalled();
    void inputEnded();

private:
    void readSignals();
    void readInput();

    QSocketNotifier *m_signalNotifier = nullptr;
    QSocketNotifier *m_inputNotifier = nullptr;
};

} // namespace vpnctl
