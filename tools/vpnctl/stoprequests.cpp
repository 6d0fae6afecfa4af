#include "stoprequests.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vpnctl {

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

/// Signal handlers may do next to nothing but write; the event loop has the other end.
std::array<int, 2> signalPipe = {-1, -1};

extern "C" void writeToSignalPipe(int)
{
    const int savedError = errno;
    const char byte = 0;
    // When the pipe is full, a request waits in it already.
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedError;
}

void setHandler(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

/// Whoever started the program with a signal ignored, like nohup(1), wants it to outlast that.
bool isIgnored(int signal)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

bool isNullDevice(int descriptor)
{
    struct stat input = {};
    struct stat nullDevice = {};
    return fstat(descriptor, &input) == 0 && stat("/dev/null", &nullDevice) == 0
        && S_ISCHR(input.st_mode) && input.st_rdev == nullDevice.st_rdev;
}

bool isTerminalOfOthers(int descriptor)
{
    return isatty(descriptor) && tcgetpgrp(descriptor) != getpgrp();
}

} // namespace

StopRequests::StopRequests(QObject *parent)
    : QObject(parent)
{
    if (pipe(signalPipe.data()) != 0)
        qFatal("vpnctl: no descriptor left for the signal pipe");
    for (const int descriptor : signalPipe) {
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        fcntl(descriptor, F_SETFL, O_NONBLOCK);
    }
    m_signalNotifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(m_signalNotifier, &QSocketNotifier::activated, this, &StopRequests::readSignals);
    for (const int signal : kStopSignals) {
        if (!isIgnored(signal))
            setHandler(signal, writeToSignalPipe);
    }
}

StopRequests::~StopRequests()
{
    for (const int signal : kStopSignals)
        setHandler(signal, SIG_IGN);
    delete m_signalNotifier;
    for (int &descriptor : signalPipe) {
        ::close(descriptor);
        descriptor = -1;
    }
}

void StopRequests::watchStandardInput()
{
    if (isNullDevice(STDIN_FILENO) || isTerminalOfOthers(STDIN_FILENO))
        return;
    m_inputNotifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    connect(m_inputNotifier, &QSocketNotifier::activated, this, &StopRequests::readInput);
}

void StopRequests::readSignals()
{
    std::array<char, 64> bytes;
    while (::read(signalPipe[0], bytes.data(), bytes.size()) > 0) {
    }
    Q_EMIT signalled();
}

void StopRequests::readInput()
{
    // Reading a terminal from the background would stop the whole process.
    if (isTerminalOfOthers(STDIN_FILENO)) {
        m_inputNotifier->setEnabled(false);
        return;
    }
    std::array<char, 4096> bytes;
    const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN)))
        return;
    m_inputNotifier->setEnabled(false);
    Q_EMIT inputEnded();
}

} // namespace vpnctl
