#pragma once

#include "options.h"
#include "problem.h"
#include "report.h"
#include "vpnsession.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>

namespace vpnctl {

/// One run of a subcommand: a conversation with the daemon from its start to an exit code.
class Command : public QObject
{
    Q_OBJECT

public:
    /// @return the object for the command that @p options ask for.
    /// @param report must outlive the command.
    static std::unique_ptr<Command> create(const Options &options, Report &report);

    Command(const Options &options, Report &report);
    ~Command() override;

    /// Begins; call once. finished() may come from within.
    /// @throws Problem when the files that the options name are wrong.
    virtual void start() = 0;

    /// A signal asks to stop. Unless a command knows better, it stops at once.
    virtual void stop();

    /// Nobody gives input or takes output any more. Unless a command knows better, like stop().
    virtual void hangUp();

    /// @return whether the end of the standard input is to end the command.
    virtual bool isTiedToInput() const { return false; }

Q_SIGNALS:
    /// Comes once; nothing is printed after it.
    void finished(vpnctl::ExitCode exitCode);

protected:
    const Options &options() const { return m_options; }
    Report &report() { return m_report; }
    VpnSession &session() { return m_session; }

    /// Counts the time from here to the answer, and gives up after Options::answerLimit.
    void awaitAnswer();

    /// @return how long the answer took; it is no longer waited for.
    std::chrono::milliseconds answerArrived();

    /// The awaited answer has not come within Options::answerLimit. Unless a command knows better,
    /// it ends with that.
    virtual void giveUpWaiting();

    /// @return what is then to be told.
    Problem lateAnswer() const;

    void finish(ExitCode exitCode);
    void finishWith(const Problem &problem);

private:
    void reportWaiting();

    Options m_options;
    Report &m_report;
    VpnSession m_session;
    QTimer m_progress;
    QTimer m_answerLimit;
    QElapsedTimer m_sinceRequest;
    bool m_isFinished = false;
};

} // namespace vpnctl
