#include "vpnctlprocess.h"

#include <QtTest/QTest>

#include <csignal>

namespace {

QStringList completeLinesOf(const QByteArray &text)
{
    QStringList lines = QString::fromUtf8(text).split(QLatin1Char('\n'));
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
    begin(arguments.split(QLatin1Char(' ')));
}

void VpnctlProcess::begin(const QStringList &arguments)
{
    m_output.clear();
    m_errors.clear();
    start(QStringLiteral(TALVEX_VPNCTL), arguments);
}

void VpnctlProcess::beginWithin(const QStringList &wrapper, const QString &arguments)
{
    m_output.clear();
    m_errors.clear();
    start(wrapper.constFirst(),
          wrapper.mid(1) + QStringList{QStringLiteral(TALVEX_VPNCTL " ") + arguments});
}

void VpnctlProcess::beginOnTerminal(const QString &shell, const QString &arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TERM"), QStringLiteral("xterm"));
    setProcessEnvironment(environment);
    m_output.clear();
    start(QStringLiteral("/usr/bin/script"),
          {QStringLiteral("--quiet"), QStringLiteral("--log-out"), nullDevice(),
           QStringLiteral("--command"), shell.arg(QStringLiteral(TALVEX_VPNCTL " ") + arguments)});
}

int VpnctlProcess::exitCodeWithin(int limitMs)
{
    const bool hasEnded = QTest::qWaitFor([this] { return state() == NotRunning; }, limitMs);
    return hasEnded && exitStatus() == NormalExit ? exitCode() : -1;
}

int VpnctlProcess::run(const QString &arguments, int limitMs)
{
    begin(arguments);
    return exitCodeWithin(limitMs);
}

void VpnctlProcess::raise(int signal)
{
    // After its end the id is 0, and kill() would mean the whole process group.
    if (state() == Running && processId() > 0)
        ::kill(static_cast<pid_t>(processId()), signal);
}

QStringList VpnctlProcess::lines()
{
    return completeLinesOf(m_output);
}

QStringList VpnctlProcess::errorLines()
{
    return completeLinesOf(m_errors);
}

QByteArray VpnctlProcess::output()
{
    return m_output;
}
