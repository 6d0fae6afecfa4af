#pragma once

#include <QtCore/QProcess>
#include <QtCore/QStringList>

/// vpnctl as a user starts it, with a pipe as its standard input.
class VpnctlProcess : public QProcess
{
    Q_OBJECT

public:
    VpnctlProcess();

    /// Ends a process that a failed test leaves behind.
    ~VpnctlProcess() override;

    /// Starts vpnctl with the arguments, of which none may hold a blank.
    void begin(const QString &arguments);
    void begin(const QStringList &arguments);

    /// As begin(), with a command in front that runs the words after it.
    void beginWithin(const QStringList &wrapper, const QString &arguments);

    /// As begin(), on a terminal of its own.
    /// @param shell a command for sh(1) in which "%1" stands for vpnctl with its arguments.
    void beginOnTerminal(const QString &shell, const QString &arguments);

    /// @return the exit code; -1 when the process crashed or does not end within @p limitMs. The
    ///         event loop turns meanwhile.
    int exitCodeWithin(int limitMs = 10'000);

    /// Begins and waits for the exit code.
    int run(const QString &arguments, int limitMs = 10'000);

    /// Sends the process a signal, unless it has ended.
    void raise(int signal);

    /// @return the complete lines of standard output so far.
    QStringList lines();

    /// @return the complete lines of standard error so far.
    QStringList errorLines();

    /// @return everything from standard output so far.
    QByteArray output();

protected:
    /// Starts with the signals as a terminal has them, whether the tests run under nohup or not.
    void setupChildProcess() override;

private:
    QByteArray m_output;
    QByteArray m_errors;
};
