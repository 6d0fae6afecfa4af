#include "options.h"

#include "observation.h"

#include <CLI/CLI.hpp>

#include <limits>
#include <type_traits>

namespace vpnctl {

namespace {

// Help, completion and the manual's lists are made from these two tables.

struct CommandRow
{
    Options::Command command;
    const char *name;
    const char *description; ///< whose first sentence tells what the command is for
    const char *examples;
};

constexpr CommandRow kCommands[] = {
    {Options::Command::Connect, "connect",
     "Bring a tunnel up and hold it. Ctrl-C, SIGTERM and the end of the standard input take it "
     "down.",
     "  vpnctl connect office.ovpn\n"
     "  vpnctl connect --server record.json --tcp\n"
     "  vpnctl connect --host vpn.example.net --ca ca.crt --cert me.crt --key me.key\n"
     "  vpnctl connect office.ovpn --detach"},
    {Options::Command::Disconnect, "disconnect",
     "Take the tunnel of an endpoint down. A vpnctl that holds it ends, too.",
     "  vpnctl disconnect --endpoint 1"},
    {Options::Command::Status, "status",
     "Print what can be seen from outside. That is no word of the daemon's, but what the system "
     "shows: tunnel interfaces, DNS servers in use, backups of DNS settings, and the endpoints "
     "that have a socket; and whether the daemon answers.",
     "  vpnctl status\n"
     "  vpnctl status --json"},
    {Options::Command::Report, "report",
     "Make a folder with what a maintainer asks for. Each file is named before it is written. Keys "
     "and addresses are left out of the log. With sudo there is more in it.",
     "  sudo vpnctl report\n"
     "  vpnctl report /tmp/report"},
    {Options::Command::Ping, "ping",
     "Ask whether the daemon is there. The answer tells how long it took; no endpoint is made.",
     "  vpnctl ping\n"
     "  vpnctl ping --json"},
    {Options::Command::Watch, "watch",
     "Print every answer on an endpoint. It does not matter who gave the command. Ctrl-C ends it.",
     "  vpnctl watch --endpoint 1"},
    {Options::Command::Raw, "raw",
     "Send a JSON text as a command. The first answer is printed. The daemon does not answer what "
     "it does not know. Without --endpoint, a new endpoint is made. A tunnel that comes up stays "
     "up, without a heartbeat.",
     "  vpnctl raw '{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}' --server record.json\n"
     "  vpnctl raw '{\"type\":\"openvpn\",\"cmd\":\"disconnect\"}' --endpoint 1"},
};

const char kEvery[] = "connect, disconnect, status, report, ping, watch, raw";
const char kFile[] = "FILE";
const char kEndpoint[] = "N";

struct OptionRow
{
    const char *names; ///< A name without dashes is that of a positional argument.
    const char *value; ///< what it takes: kFile and kEndpoint can be completed
    const char *commands; ///< that take it; with kEvery, vpnctl takes it before them, too
    std::variant<bool Options::*, int Options::*, std::chrono::seconds Options::*,
                 QString Options::*>
        member;
    const char *text;
    int lowest = 0;
    int highest = 0;
};

constexpr OptionRow kOptions[] = {
    {"--json", "", kEvery, &Options::json, "Print one JSON object a line, for programs."},
    {"FILE,--config", kFile, "connect", &Options::configPath,
     "Connect with this OpenVPN client profile. It may stand without --config."},
    {"--server", kFile, "connect, raw", &Options::recordPath,
     "Use this server record: JSON with host, ca, cert, key, udpPort and tcpPort."},
    {"--host", "HOST", "connect", &Options::host,
     "Connect to this name or address, with --ca, --cert and --key."},
    {"--port", "PORT", "connect", &Options::port, "The port of --host; 1194 if not given.", 1,
     kMaxPort},
    {"--ca", kFile, "connect", &Options::caPath, "The authority's certificate, PEM."},
    {"--cert", kFile, "connect", &Options::certPath, "Your certificate, PEM."},
    {"--key", kFile, "connect", &Options::keyPath, "Your private key, PEM, not encrypted."},
    {"--udp", "", "connect", &Options::udp,
     "Use UDP. It is the default for --host, and for a record that has udpPort."},
    {"--tcp", "", "connect", &Options::tcp,
     "Use TCP. With a profile, --udp and --tcp choose the servers of this transport; if there are "
     "none, all servers are called with it."},
    {"--accept-weaker", "", "connect", &Options::acceptWeaker,
     "Connect although the daemon does not protect the connection as the profile asks."},
    {"--detach", "", "connect", &Options::detach,
     "Leave the tunnel up, without a heartbeat, and exit. \"vpnctl disconnect\" takes it down."},
    {"--once", "", "connect", &Options::once,
     "Exit when the tunnel goes. Otherwise it is brought up again, after growing pauses."},
    {"--endpoint", kEndpoint, "disconnect, watch, raw", &Options::endpoint,
     "The number that \"vpnctl connect\" printed.", 1, std::numeric_limits<int>::max()},
    {"--timeout", "SECONDS", "connect, disconnect, raw", &Options::answerLimit,
     "Wait so long for the answer to a command, up to 3600; 120 if not given.", 1, 3600},
    {"FOLDER", kFile, "report", &Options::folder,
     "The folder to make; vpnctl-report if not given."},
    {"TEXT", "", "raw", &Options::message, "The JSON text to send."},
};

/// CLI11's help, as wide as the terminal.
class HelpLayout : public CLI::Formatter
{
public:
    explicit HelpLayout(int width)
        : m_width(width)
    {
        label("Positionals", "Arguments");
        label("SUBCOMMAND", "COMMAND");
    }

    std::string make_description(const CLI::App *app) const override
    {
        return wrapped(QString::fromStdString(app->get_description()), m_width).toStdString()
            + "\n\n";
    }

    std::string make_subcommand(const CLI::App *command) const override
    {
        const std::string text = command->get_description();
        return entry(command->get_name(), text.substr(0, text.find(". ") + 1));
    }

    std::string make_option(const CLI::Option *option, bool isPositional) const override
    {
        std::string name = option->get_name(isPositional, !isPositional);
        if (!isPositional && !option->get_type_name().empty())
            name += ' ' + option->get_type_name();
        return entry(name, option->get_description());
    }

private:
    std::string entry(const std::string &name, const std::string &text) const
    {
        constexpr int kColumn = 22;
        const QString left = QString::fromStdString("  " + name).leftJustified(kColumn);
        const QString right = wrapped(QString::fromStdString(text), m_width - kColumn);
        return (left + QString(right).replace('\n', '\n' + QString(kColumn, ' ')) + '\n')
            .toStdString();
    }

    int m_width;
};

void addOption(CLI::App &command, const OptionRow &row, Options &options)
{
    const auto add = [&](auto member) {
        auto &value = options.*member;
        using Value = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, bool>) {
            return command.add_flag(row.names, value, row.text);
        } else if constexpr (std::is_same_v<Value, QString>) {
            const auto set = [&value](const std::string &text) {
                value = QString::fromStdString(text);
            };
            return command.add_option_function<std::string>(row.names, set, row.text);
        } else {
            const auto set = [&value](int number) { value = Value(number); };
            return command.add_option_function<int>(row.names, set, row.text)
                ->check(CLI::Range(row.lowest, row.highest).description(""));
        }
    };
    std::visit(add, row.member)->type_name(row.value);
}

void addEverything(CLI::App &app, Options &options)
{
    app.require_subcommand(1);
    app.description("Drive the VPN daemon talvexvpnd from the terminal.");
    app.footer(R"("vpnctl COMMAND --help" shows what a command takes. "man vpnctl" has more.)");
    app.set_help_flag("-h,--help", "Print this help; after a command, the command's.");
    app.set_version_flag("-v,-V,--version", "vpnctl " TALVEX_VERSION, "Print the version.");
    for (const CommandRow &row : kCommands) {
        CLI::App *command = app.add_subcommand(row.name, row.description)->group("Commands");
        command->footer(std::string("Examples:\n") + row.examples);
        command->callback([&options, &row] { options.command = row.command; });
    }
    for (const OptionRow &row : kOptions) {
        if (row.commands == kEvery)
            addOption(app, row, options);
        for (const QString &command : QString(row.commands).split(", "))
            addOption(*app.get_subcommand(command.toStdString()), row, options);
    }
    app.get_subcommand("raw")->get_option("TEXT")->required();
    for (const char *command : {"disconnect", "watch"})
        app.get_subcommand(command)->get_option("--endpoint")->required();
    CLI::App *connect = app.get_subcommand("connect");
    CLI::Option *host = connect->get_option("--host");
    connect->get_option("--port")->needs(host);
    for (const char *name : {"--ca", "--cert", "--key"}) {
        connect->get_option(name)->needs(host);
        host->needs(connect->get_option(name));
    }
    connect->get_option("--udp")->excludes(connect->get_option("--tcp"));
}

/// @param words what stands after "vpnctl", up to and with the word that is to be completed.
/// @return a line each: a word, a tab, and what it means; or kFile where a file may stand.
QString completions(const CLI::App &app, const QStringList &words)
{
    const CLI::App *command = &app;
    const CLI::Option *option = nullptr; // whose value is to be completed
    for (const QString &before : words.mid(0, words.size() - 1)) {
        for (const CLI::App *candidate : command->get_subcommands({})) {
            if (candidate->check_name(before.toStdString()))
                command = candidate;
        }
        option = command->get_option_no_throw(before.toStdString());
    }
    const QString word = words.value(words.size() - 1);
    QString lines;
    const auto offer = [&](const QString &name, const std::string &text = {}) {
        if (name.startsWith(word))
            lines += name + '\t' + QString::fromStdString(text) + '\n';
    };
    if (option && option->get_items_expected() > 0) {
        if (option->get_type_name() == kFile)
            return QString("%1\n").arg(kFile);
        for (const int endpoint : endpointsWithSockets()) {
            if (option->get_type_name() == kEndpoint)
                offer(QString::number(endpoint));
        }
        return lines;
    }
    for (const CLI::App *candidate : command->get_subcommands({}))
        offer(QString::fromStdString(candidate->get_name()), candidate->get_description());
    for (const CLI::Option *candidate : command->get_options()) {
        for (const std::string &name : candidate->get_lnames())
            offer(QString::fromStdString("--" + name), candidate->get_description());
        if (candidate->get_positional() && candidate->get_type_name() == kFile
            && !word.startsWith('-'))
            lines += QLatin1String(kFile) + '\n';
    }
    return lines;
}

/// @return the lists of the manual page, in Markdown.
QString manualLists(const CLI::App &app)
{
    QString lists;
    const auto add = [&lists](const QStringList &names, const QString &value, const QString &text) {
        lists += QString("**%1**%2\n:   %3\n\n")
                     .arg(names.join("**, **").replace('_', "\\_"), value, text);
    };
    lists += "# COMMANDS\n\n";
    for (const CommandRow &row : kCommands)
        add({row.name}, {}, row.description);

    lists += "# OPTIONS\n\n";
    for (const CLI::Option *option : {app.get_help_ptr(), app.get_version_ptr()})
        add(QString::fromStdString(option->get_name(false, true)).split(','), {},
            QString::fromStdString(option->get_description()));
    for (const OptionRow &row : kOptions) {
        const QString with = QString("With %1: ").arg(row.commands);
        add({QString::fromLatin1(row.names).section(',', -1)},
            *row.value ? QString(" *%1*").arg(row.value) : QString(),
            (row.commands == kEvery ? QString() : with) + row.text);
    }

    lists += "# PROFILES THAT ASK FOR MORE\n\n"
             "The daemon does not take over these directives of a profile, which "
             "protect its user. Connecting needs **--accept-weaker** then, unless the daemon does "
             "the same anyway (*remote-cert-tls server*).\n\n";
    for (const Weakness &protection : protections())
        add(protection.directive.split(' '), {}, protection.text);

    lists += "# ANSWERS OF THE DAEMON\n\n"
             "A failure carries one of these localisation keys.\n\n";
    const QMap<QString, Explanation> keys = explanations();
    for (auto key = keys.begin(); key != keys.end(); ++key)
        add({key.key()}, {}, key->text + ' ' + key->advice);
    return lists;
}

} // namespace

std::variant<Options, QString> readCommandLine(const QStringList &arguments, int width)
{
    Options options;
    CLI::App app;
    app.name("vpnctl");
    app.formatter(std::make_shared<HelpLayout>(width));
    addEverything(app, options);

    QStringList words = arguments.mid(1);
    const QString first = words.value(0);
    if (first == "complete")
        return completions(app, words.mid(1));
    if (first == "manual")
        return manualLists(app);
    if (first == "help")
        words = words.mid(1) + QStringList{"--help"};

    std::vector<std::string> reversed; // as CLI11 takes them
    for (const QString &word : qAsConst(words))
        reversed.insert(reversed.begin(), word.toStdString());
    try {
        app.parse(std::move(reversed));
    } catch (const CLI::CallForHelp &) {
        return QString::fromStdString(app.help());
    } catch (const CLI::CallForVersion &version) {
        return QLatin1String(version.what()) + '\n';
    } catch (const CLI::ParseError &error) {
        QString text = QString::fromUtf8(error.what()) + '.';
        if (app.get_subcommands().empty() && app.remaining_size() > 0)
            text = QString("There is no command \"%1\".")
                       .arg(QString::fromStdString(app.remaining().front()));
        else if (app.get_subcommands().empty())
            text = "The command is missing.";
        throw wrongUse(text,
                       "\"vpnctl --help\" lists the commands, and "
                       "\"vpnctl COMMAND --help\" what each takes.");
    }
    const int sources =
        !options.configPath.isEmpty() + !options.recordPath.isEmpty() + !options.host.isEmpty();
    if (options.command == Options::Command::Connect && sources != 1) {
        throw wrongUse(sources == 0 ? "Nothing says where to connect to."
                                    : "There is more than one place to connect to.",
                       "Name one profile, as in \"vpnctl connect office.ovpn\", or use "
                       "--server or --host.");
    }
    return options;
}

} // namespace vpnctl
