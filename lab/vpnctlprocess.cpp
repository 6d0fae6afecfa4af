#include "vpnctlprocess.h"

#include <QtCore/QFileInfo>
#include <QtCore/QProcessEnvironment>
#include <QtTest/QTest>

#include <csignal>

namespace {

QStringList completeLinesOf(const QByteArray &text)
{
    QStringList lines = QString::fromUtf8(text).split('\n');
    lines.removeLast();
    return lines;
}

} // namespace

VpnctlProcess::VpnctlProcess()
{
    connect(this, &QProcess::readyReadStandardOutput, this,
            [this] { m_output += readAllStandardOutput(); });
    connect(this, &QProcess::readyReadStandardError, this,
            [this] { m_errors += readAllStandardError(); });
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PATH", QFileInfo(TALVEX_VPNCTL).path() + ':' + environment.value("PATH"));
    environment.insert("TERM", "xterm");
    setProcessEnvironment(environment);
}

VpnctlProcess::~VpnctlProcess()
{
    disconnect(this, nullptr, this, nullptr);
    kill();
    waitForFinished();
}

void VpnctlProcess::setupChildProcess()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, SIG_DFL);
}

void VpnctlProcess::begin(const QString &arguments)
{
    beginProgram(TALVEX_VPNCTL, arguments.split(' '));
}

void VpnctlProcess::beginInShell(const QString &script)
{
    beginProgram("/bin/bash", {"-o", "pipefail", "-c", script});
}

void VpnctlProcess::beginOnTerminal(const QString &script)
{
    beginProgram("/usr/bin/script", {"--quiet", "--log-out", nullDevice(), "--command", script});
}

void VpnctlProcess::beginProgram(const QString &program, const QStringList &arguments)
{
    m_output.clear();
    m_errors.clear();
    start(program, arguments);
}

int VpnctlProcess::exitCodeWithin(int limitMs)
{
    const bool hasEnded = QTest::qWaitFor([this] { return state() == NotRunning; }, limitMs);
    return hasEnded && exitStatus() == NormalExit ? exitCode() : -1;
}

int VpnctlProcess::run(const QString &arguments)
{
    begin(arguments);
    return exitCodeWithin();
}

void VpnctlProcess::raise(int signal)
{
    // After its end the id is 0, and kill() would mean the whole process group.
    if (state() == Running && processId() > 0)
        ::kill(static_cast<pid_t>(processId()), signal);
}

QStringList VpnctlProcess::lines() const
{
    return completeLinesOf(m_output);
}

QStringList VpnctlProcess::errorLines() const
{
    return completeLinesOf(m_errors);
}
