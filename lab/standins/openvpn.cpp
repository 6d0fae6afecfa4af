/// A stand-in for OpenVPN that plays a scenario instead of making a tunnel.
///
///     openvpn --config FILE
///
/// The host in the configuration's `remote HOST PORT` line names the scenario (see kScenarios at
/// the end); any other host plays "connects".
///
/// The times in the scenarios are those of a daemon with its usual limits. TALVEX_STANDIN_SCALE, a
/// whole number, divides them.
///
/// It leaves its traces in ${TALVEX_STANDIN_STATE:-/var/root/stand-ins}/openvpn/:
///
///     journal       one line a start, `PID 'argument' 'argument' ...` (quoted as for a shell, the
///                   program's name included), and further lines for the same process:
///                   `PID child CHILDPID` when it left a child behind,
///                   `PID is told to end` when SIGTERM has come,
///                   `PID terminated` when it ended because of that,
///                   `PID has printed all` when a flood of output is out
///     config.PID    a copy of the configuration file
///     mode.PID      the mode of the configuration file, in octal
///     starts.HOST   how often "exits-twice-then-connects" has been started

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;
using std::chrono::milliseconds;

constexpr auto kBanner = "OpenVPN 2.6.14 stand-in\n"sv;
constexpr auto kSuccess = "Initialization Sequence Completed\n"sv;
constexpr std::size_t kFloodBytes = 64 * 1024 * 1024; ///< of a tunnel; thrice that in an attempt
constexpr auto kChildTime = 60s;

/// SIGTERM has come; what happens then is the scenario's business.
struct StopRequested
{};

/// The process is to end by itself.
struct Exit
{
    int status;
};

// ---------------------------------------------------------------------------------------------
// The traces

class Traces
{
public:
    Traces()
    {
        const char *base = std::getenv("TALVEX_STANDIN_STATE");
        m_folder = std::filesystem::path(base && *base ? base : "/var/root/stand-ins") / "openvpn";
        std::filesystem::create_directories(m_folder);
    }

    /// Appends a line in one write, so that processes at the same time do not mix theirs.
    void journal(const std::string &text) const
    {
        const std::string line = pid() + ' ' + text + '\n';
        const int file =
            open(path("journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        const bool written =
            file >= 0 && write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
        if (file >= 0)
            close(file);
        if (!written)
            throw std::filesystem::filesystem_error(
                "cannot write", path("journal"), std::error_code(errno, std::generic_category()));
    }

    void keepConfiguration(const std::string &file, const std::string &text) const
    {
        struct stat status = {};
        stat(file.c_str(), &status);
        std::ofstream(path("config." + pid()), std::ios::binary) << text;
        std::ofstream(path("mode." + pid())) << std::oct << (status.st_mode & 07777U) << '\n';
    }

    int countStart(const std::string &host) const
    {
        int starts = 0;
        std::ifstream(path("starts." + host)) >> starts;
        ++starts;
        std::ofstream(path("starts." + host)) << starts << '\n';
        return starts;
    }

private:
    std::filesystem::path path(const std::string &name) const { return m_folder / name; }
    static std::string pid() { return std::to_string(getpid()); }

    std::filesystem::path m_folder;
};

/// @return @p time, divided by TALVEX_STANDIN_SCALE.
milliseconds scaled(milliseconds time)
{
    const char *scale = std::getenv("TALVEX_STANDIN_SCALE");
    return time / std::max(1, scale ? std::atoi(scale) : 1);
}

std::string shellQuoted(std::string_view text)
{
    std::string quoted = "'";
    for (const char character : text) {
        if (character == '\'')
            quoted += "'\\''";
        else
            quoted += character;
    }
    return quoted + '\'';
}

// ---------------------------------------------------------------------------------------------
// The configuration

struct Configuration
{
    std::string text;
    std::string remoteHost;
    std::string upScript;
    std::string downScript;
};

/// "'/path with blanks/script'" without the two pairs of quotes, of which OpenVPN takes the outer
/// ones off when it reads the line and the inner ones when it runs the script.
std::string withoutQuotes(std::string text)
{
    for (const char quote : {'"', '\''}) {
        if (text.size() >= 2 && text.front() == quote && text.back() == quote)
            text = text.substr(1, text.size() - 2);
    }
    return text;
}

Configuration readConfiguration(const std::string &file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        std::cout << "Options error: In [CMD-LINE]:1: Error opening configuration file: " << file
                  << std::endl;
        throw Exit{1};
    }

    Configuration configuration;
    configuration.text.assign(std::istreambuf_iterator<char>(stream), {});

    std::string line;
    for (std::istringstream lines(configuration.text); std::getline(lines, line);) {
        const std::size_t blank = line.find(' ');
        const std::string directive = line.substr(0, blank);
        const std::string value =
            blank == std::string::npos ? std::string() : line.substr(blank + 1);
        if (directive == "remote")
            configuration.remoteHost = value.substr(0, value.find(' '));
        else if (directive == "up")
            configuration.upScript = withoutQuotes(value);
        else if (directive == "down")
            configuration.downScript = withoutQuotes(value);
        else if (directive.rfind('<', 0) == 0)
            break; // The inline blocks stand last.
    }
    return configuration;
}

// ---------------------------------------------------------------------------------------------
// What scenarios are made of

void unblockSignals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

class Tunnel
{
public:
    Tunnel(const Traces &traces, Configuration configuration)
        : m_traces(traces)
        , m_configuration(std::move(configuration))
    {
        // A daemon that has gone must not end this process before SIGTERM does.
        std::signal(SIGPIPE, SIG_IGN);
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGTERM);
        sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
        m_stopSignals = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    }

    Tunnel(const Tunnel &) = delete;
    Tunnel &operator=(const Tunnel &) = delete;
    ~Tunnel() { close(m_stopSignals); }

    const std::string &host() const { return m_configuration.remoteHost; }
    const Traces &traces() const { return m_traces; }

    /// Writes the text, up to 4,096 bytes of it in one piece. Throws StopRequested when SIGTERM
    /// comes before the reader has made room.
    void print(std::string_view text)
    {
        while (!text.empty()) {
            // There is room for PIPE_BUF bytes in a pipe that is ready, so the write cannot block.
            waitUntilWritable();
            const ssize_t written =
                write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
            if (written < 0)
                return; // Nobody reads any more.
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    /// Waits for @p time, divided by the scale. Throws StopRequested when SIGTERM comes before it
    /// is over.
    void wait(milliseconds time)
    {
        const auto deadline = std::chrono::steady_clock::now() + scaled(time);
        for (;;) {
            const auto left =
                std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left <= 0ms)
                return;
            pollfd stop = {m_stopSignals, POLLIN, 0};
            if (poll(&stop, 1, static_cast<int>(left.count())) > 0)
                acceptStop();
        }
    }

    /// Waits for SIGTERM.
    [[noreturn]] void stay()
    {
        for (;;)
            wait(std::chrono::hours(24));
    }

    bool runUpScript() { return runScript(m_configuration.upScript, "up"); }
    bool runDownScript() { return runScript(m_configuration.downScript, "down"); }

private:
    void waitUntilWritable()
    {
        std::array<pollfd, 2> files = {{{m_stopSignals, POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}}};
        while (poll(files.data(), files.size(), -1) < 0 && errno == EINTR) {
        }
        if (files[0].revents)
            acceptStop();
    }

    [[noreturn]] void acceptStop()
    {
        signalfd_siginfo signal = {};
        while (read(m_stopSignals, &signal, sizeof signal) < 0 && errno == EINTR) {
        }
        throw StopRequested{};
    }

    /// As OpenVPN does, with nothing in the environment but what it sets itself (and the place of
    /// the stand-ins' traces). SIGTERM waits until the script has ended.
    bool runScript(const std::string &script, const char *type)
    {
        if (script.empty())
            return true;

        const std::string scriptType = std::string("script_type=") + type;
        const char *traces = std::getenv("TALVEX_STANDIN_STATE");
        const std::string tracesVariable =
            std::string("TALVEX_STANDIN_STATE=") + (traces ? traces : "");
        const std::array arguments = {
            script.c_str(), "tun0",          "1500", "0",
            "10.8.0.2",     "255.255.255.0", "init", static_cast<const char *>(nullptr)};
        const std::array variables = {"dev=tun0",
                                      scriptType.c_str(),
                                      "foreign_option_1=dhcp-option DNS 10.8.0.1",
                                      "foreign_option_2=dhcp-option DOMAIN talvex.test",
                                      tracesVariable.c_str(),
                                      static_cast<const char *>(nullptr)};

        const pid_t child = fork();
        if (child == 0) {
            unblockSignals();
            execve(script.c_str(), const_cast<char *const *>(arguments.data()),
                   const_cast<char *const *>(variables.data()));
            _exit(127);
        }
        int status = -1;
        while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    const Traces &m_traces;
    Configuration m_configuration;
    int m_stopSignals = -1;
};

// ---------------------------------------------------------------------------------------------
// The scenarios

void printStart(Tunnel &tunnel)
{
    tunnel.print(kBanner);
    tunnel.print("UDPv4 link local: (not bound)\n");
    tunnel.print("UDPv4 link remote: [AF_INET]192.0.2.2:1194\n");
}

void connectWithScripts(Tunnel &tunnel)
{
    printStart(tunnel);
    tunnel.print("TUN/TAP device tun0 opened\n");
    if (!tunnel.runUpScript()) {
        tunnel.print("WARNING: Failed running command (--up/--down): external program exited with "
                     "error status\nExiting due to fatal error\n");
        throw Exit{1};
    }
    tunnel.print(kSuccess);
}

void connectWithoutScripts(Tunnel &tunnel)
{
    printStart(tunnel);
    tunnel.print(kSuccess);
}

void printSuccess(Tunnel &tunnel)
{
    tunnel.print(kSuccess);
}

void doNothing(Tunnel &) {}

void printLineEverySecond(Tunnel &tunnel)
{
    for (int second = 0;; ++second) {
        tunnel.print("TLS: still waiting, second " + std::to_string(second) + '\n');
        tunnel.wait(1s);
    }
}

void splitMarker(Tunnel &tunnel)
{
    constexpr std::size_t half = kSuccess.size() / 2;
    tunnel.print(kSuccess.substr(0, half));
    tunnel.wait(700ms);
    tunnel.print(kSuccess.substr(half));
}

void printError(Tunnel &tunnel)
{
    tunnel.print(
        "ERROR: Cannot open TUN/TAP dev /dev/net/tun: No such file or directory (errno=2)\n");
}

/// On standard error, which the daemon is to read, too.
void printWillRetry(Tunnel &tunnel)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    tunnel.print("TCP: connect to [AF_INET]192.0.2.2:443 failed, will try again in 5 seconds\n");
}

void printIpv6Error(Tunnel &tunnel)
{
    tunnel.print(
        "ERROR: Linux ipv6 command failed: external program exited with error status: 2\n");
}

void printIpv6ErrorThenOthers(Tunnel &tunnel)
{
    printIpv6Error(tunnel);
    for (;;) {
        tunnel.wait(1s);
        tunnel.print("ERROR: Linux route add command failed: external program exited with error "
                     "status: 2\n");
    }
}

void printIpv6ErrorThenSuccess(Tunnel &tunnel)
{
    printIpv6Error(tunnel);
    tunnel.wait(1500ms);
    tunnel.print(kSuccess);
}

void exitAtOnce(Tunnel &)
{
    throw Exit{1};
}

void exitWithOutput(Tunnel &tunnel)
{
    tunnel.print(kBanner);
    tunnel.print("Exiting due to fatal error\n");
    throw Exit{1};
}

void exitTwiceThenConnect(Tunnel &tunnel)
{
    if (tunnel.traces().countStart(tunnel.host()) <= 2)
        throw Exit{1};
    connectWithScripts(tunnel);
}

void ignoreTerm(Tunnel &)
{
    // A signal that is ignored but blocked still shows in the signal descriptor.
    std::signal(SIGTERM, SIG_IGN);
    unblockSignals();
}

void ignoreTermAndConnect(Tunnel &tunnel)
{
    ignoreTerm(tunnel);
    connectWithoutScripts(tunnel);
}

void printNulAndMarker(Tunnel &tunnel)
{
    tunnel.print("before\0Initialization Sequence Completed\n"sv);
}

void printNulThenSuccess(Tunnel &tunnel)
{
    printNulAndMarker(tunnel);
    tunnel.wait(1500ms);
    tunnel.print(kSuccess);
}

void succeedLate(Tunnel &tunnel)
{
    tunnel.wait(3s);
    tunnel.print(kBanner);
    tunnel.wait(9s);
    tunnel.print(kSuccess);
}

void closeOutput(Tunnel &)
{
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
}

void leaveChild(Tunnel &tunnel)
{
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        unblockSignals();
        std::this_thread::sleep_for(scaled(kChildTime));
        _exit(0);
    }
    tunnel.traces().journal("child " + std::to_string(child));
}

void leaveChildWithPipe(Tunnel &tunnel)
{
    connectWithoutScripts(tunnel);
    leaveChild(tunnel);
}

void exitAndLeaveChildWithPipe(Tunnel &tunnel)
{
    leaveChild(tunnel);
    throw Exit{1};
}

void printVeryMuch(Tunnel &tunnel)
{
    std::string block;
    while (block.size() < PIPE_BUF)
        block += "TLS: a line of no consequence, one of very many\n";
    for (std::size_t printed = 0; printed < kFloodBytes; printed += block.size())
        tunnel.print(block);
}

void flood(Tunnel &tunnel)
{
    for (int i = 0; i < 3; ++i)
        printVeryMuch(tunnel);
    tunnel.print(kSuccess);
}

void floodWhenConnected(Tunnel &tunnel)
{
    connectWithoutScripts(tunnel);
    tunnel.wait(1s);
    printVeryMuch(tunnel);
    tunnel.traces().journal("has printed all");
}

void floodAfterAnError(Tunnel &tunnel)
{
    printError(tunnel);
    tunnel.wait(1s);
    printVeryMuch(tunnel);
    tunnel.traces().journal("has printed all");
}

void crash(Tunnel &tunnel)
{
    tunnel.print(kBanner);
    const rlimit noCoreFile = {0, 0};
    setrlimit(RLIMIT_CORE, &noCoreFile);
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
}

void stopItself(Tunnel &tunnel)
{
    connectWithoutScripts(tunnel);
    std::raise(SIGSTOP);
}

void stopItselfSilently(Tunnel &)
{
    std::raise(SIGSTOP);
}

void printSuccessAndError(Tunnel &tunnel)
{
    tunnel.print("ERROR: Linux route add command failed\nInitialization Sequence Completed\n");
}

void runDownScript(Tunnel &tunnel)
{
    tunnel.print("event_wait : Interrupted system call (code=4)\n");
    tunnel.print("Closing TUN/TAP interface\n");
    tunnel.runDownScript();
    tunnel.print("SIGTERM[hard,] received, process exiting\n");
}

void stopSlowly(Tunnel &tunnel)
{
    for (int second = 0; second < 3; ++second) {
        tunnel.print("Still closing, second " + std::to_string(second) + '\n');
        tunnel.wait(1s);
    }
}

using Act = void (*)(Tunnel &);

/// After `start` the process stays until SIGTERM comes; then follow `stop` and the end with status
/// 0.
struct Scenario
{
    std::string_view host;
    Act start;
    Act stop = doNothing;
};

constexpr Scenario kScenarios[] = {
    // The first one is for hosts that are not listed.
    {"connects", connectWithScripts, runDownScript},
    {"prints-at-once-success", printSuccess},
    {"silent", doNothing},
    {"chatty", printLineEverySecond},
    {"split-marker", splitMarker},
    {"error", printError},
    {"will-retry", printWillRetry},
    {"ipv6-error", printIpv6ErrorThenOthers},
    {"ipv6-error-then-success", printIpv6ErrorThenSuccess},
    {"success-and-error", printSuccessAndError},
    {"exits-at-once", exitAtOnce},
    {"exits-with-output", exitWithOutput},
    {"exits-twice-then-connects", exitTwiceThenConnect, runDownScript},
    {"crashes", crash},
    {"stops-itself", stopItself},
    {"stops-itself-silently", stopItselfSilently},
    {"ignores-term", ignoreTermAndConnect},
    {"ignores-term-silent", ignoreTerm},
    {"slow-to-stop", connectWithoutScripts, stopSlowly},
    {"child-holds-pipe", leaveChildWithPipe},
    {"exits-but-child-holds-pipe", exitAndLeaveChildWithPipe},
    {"nul-bytes", printNulAndMarker},
    {"nul-then-success", printNulThenSuccess},
    {"late-success", succeedLate},
    {"only-empty", closeOutput},
    {"flood", flood},
    {"flood-when-connected", floodWhenConnected},
    {"flood-after-error", floodAfterAnError},
};

const Scenario &scenarioFor(const std::string &host)
{
    const auto found =
        std::find_if(std::begin(kScenarios), std::end(kScenarios),
                     [&](const Scenario &scenario) { return scenario.host == host; });
    return found == std::end(kScenarios) ? kScenarios[0] : *found;
}

int play(int argc, char **argv)
{
    const Traces traces;
    std::string arguments;
    for (int index = 0; index < argc; ++index)
        arguments += (index ? " " : "") + shellQuoted(argv[index]);
    traces.journal(arguments);

    if (argc != 3 || argv[1] != "--config"sv) {
        std::cout << "Options error: usage: openvpn --config FILE" << std::endl;
        return 1;
    }

    Configuration configuration = readConfiguration(argv[2]);
    traces.keepConfiguration(argv[2], configuration.text);

    const Scenario &scenario = scenarioFor(configuration.remoteHost);
    Tunnel tunnel(traces, std::move(configuration));
    try {
        scenario.start(tunnel);
        tunnel.stay();
    } catch (StopRequested) {
        traces.journal("is told to end");
        try {
            scenario.stop(tunnel);
        } catch (StopRequested) {
            // A second SIGTERM cuts the end short.
        }
        traces.journal("terminated");
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return play(argc, argv);
    } catch (const Exit &exit) {
        return exit.status;
    } catch (const std::exception &error) {
        std::cerr << "openvpn stand-in: " << error.what() << std::endl;
        return 1;
    }
}
