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

    /// Starts a script of bash, which finds vpnctl by its name.
    void beginInShell(const QString &script);

    /// The same on a terminal of its own.
    void beginOnTerminal(const QString &script);

    /// @return the exit code; -1 when the process crashed or does not end within @p limitMs. The
    ///         event loop turns meanwhile.
    int exitCodeWithin(int limitMs = 10'000);

    /// Begins and waits for the exit code.
    int run(const QString &arguments);

    /// Sends the process a signal, unless it has ended.
    void raise(int signal);

    /// @return the complete lines of standard output so far, or of standard error.
    QStringList lines() const;
    QStringList errorLines() const;

    /// @return everything from standard output so far.
    QByteArray output() const { return m_output; }

protected:
    /// Starts with the signals as a terminal has them, whether the tests run under nohup or not.
    void setupChildProcess() override;

private:
    void beginProgram(const QString &program, const QStringList &arguments);

    QByteArray m_output;
    QByteArray m_errors;
};
