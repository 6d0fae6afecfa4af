#include "options.h"

#include "host.h"

#include <QtCore/QCommandLineParser>

#include <limits>

namespace vpnctl {

namespace {

using Command = Options::Command;

struct CommandHelp
{
    Command command;
    const char *name;
    const char *summary;
    const char *usage; ///< what follows "vpnctl"
    const char *description;
    const char *examples;
};

constexpr CommandHelp kCommands[] = {
    {Command::Connect, "connect", "bring a tunnel up and hold it",
     "connect (--config FILE | --server FILE | --host HOST --ca FILE ...) [options]",
     "Brings a tunnel up and holds it until Ctrl-C, SIGTERM or the end of the standard input, "
     "then\n"
     "takes it down and exits.",
     "  vpnctl connect --config office.ovpn\n"
     "  vpnctl connect --server record.json --tcp\n"
     "  vpnctl connect --host vpn.example.net --port 1194 --ca ca.crt --cert me.crt --key me.key\n"
     "  vpnctl connect --config office.ovpn --detach\n"},
    {Command::Disconnect, "disconnect", "take the tunnel of an endpoint down",
     "disconnect --endpoint N [options]",
     "Takes the tunnel of an endpoint down; a vpnctl that holds it ends too.",
     "  vpnctl disconnect --endpoint 1\n"},
    {Command::Ping, "ping", "ask whether the daemon is there", "ping [options]",
     "Asks whether the daemon is there, and measures how long it takes to answer.",
     "  vpnctl ping\n"
     "  vpnctl ping --json\n"},
    {Command::Watch, "watch", "print the answers on an endpoint as they come",
     "watch --endpoint N [options]",
     "Prints every answer of an endpoint as it comes, whoever gave the command, until Ctrl-C.",
     "  vpnctl watch --endpoint 1\n"},
    {Command::Raw, "raw", "send a JSON command as it stands", "raw JSON [options]",
     "Sends a command as it stands and prints the answer. The daemon does not answer what it does\n"
     "not know. Without --endpoint a new one is made; a tunnel that comes up is left up.",
     "  vpnctl raw '{\"type\":\"connect\",\"cmd\":\"ovpnUdp\"}' --server record.json\n"
     "  vpnctl raw '{\"type\":\"openvpn\",\"cmd\":\"disconnect\"}' --endpoint 1\n"},
};

const CommandHelp *commandNamed(const QString &name)
{
    for (const CommandHelp &help : kCommands) {
        if (name == QLatin1String(help.name))
            return &help;
    }
    return nullptr;
}

const QCommandLineOption &helpOption()
{
    static const QCommandLineOption option({QStringLiteral("h"), QStringLiteral("help")},
                                           QStringLiteral("Print this help."));
    return option;
}

const QCommandLineOption &jsonOption()
{
    static const QCommandLineOption option(
        QStringLiteral("json"), QStringLiteral("Print one JSON object a line, for programs."));
    return option;
}

const QCommandLineOption &timeoutOption()
{
    static const QCommandLineOption option(
        QStringLiteral("timeout"),
        QStringLiteral("Wait so long for the answer to a command (default: 120)."),
        QStringLiteral("seconds"));
    return option;
}

const QCommandLineOption &endpointOption()
{
    static const QCommandLineOption option(
        QStringLiteral("endpoint"),
        QStringLiteral("The number that connect or raw printed as \"Endpoint: N\"."),
        QStringLiteral("N"));
    return option;
}

const QCommandLineOption &configOption()
{
    static const QCommandLineOption option(QStringLiteral("config"),
                                           QStringLiteral("An OpenVPN client profile (.ovpn)."),
                                           QStringLiteral("file"));
    return option;
}

const QCommandLineOption &serverOption()
{
    static const QCommandLineOption option(
        QStringLiteral("server"),
        QStringLiteral("A server record: JSON with host, ca, cert, key, udpPort, tcpPort."),
        QStringLiteral("file"));
    return option;
}

const QCommandLineOption &hostOption()
{
    static const QCommandLineOption option(QStringLiteral("host"),
                                           QStringLiteral("The server's name or address."),
                                           QStringLiteral("host"));
    return option;
}

const QCommandLineOption &portOption()
{
    static const QCommandLineOption option(QStringLiteral("port"),
                                           QStringLiteral("With --host: the port (default: 1194)."),
                                           QStringLiteral("port"));
    return option;
}

const QCommandLineOption &caOption()
{
    static const QCommandLineOption option(
        QStringLiteral("ca"), QStringLiteral("With --host: the authority's certificate."),
        QStringLiteral("file"));
    return option;
}

const QCommandLineOption &certOption()
{
    static const QCommandLineOption option(QStringLiteral("cert"),
                                           QStringLiteral("With --host: your certificate."),
                                           QStringLiteral("file"));
    return option;
}

const QCommandLineOption &keyOption()
{
    static const QCommandLineOption option(QStringLiteral("key"),
                                           QStringLiteral("With --host: your private key."),
                                           QStringLiteral("file"));
    return option;
}

const QCommandLineOption &udpOption()
{
    static const QCommandLineOption option(QStringLiteral("udp"), QStringLiteral("Use UDP."));
    return option;
}

const QCommandLineOption &tcpOption()
{
    static const QCommandLineOption option(QStringLiteral("tcp"), QStringLiteral("Use TCP."));
    return option;
}

const QCommandLineOption &detachOption()
{
    static const QCommandLineOption option(
        QStringLiteral("detach"),
        QStringLiteral("Leave the tunnel up and exit; \"vpnctl disconnect\" takes it down."));
    return option;
}

QList<QCommandLineOption> optionsOf(Command command)
{
    QList<QCommandLineOption> options{helpOption(), jsonOption()};
    switch (command) {
    case Command::Connect:
        options += {configOption(), serverOption(), hostOption(),   portOption(),
                    caOption(),     certOption(),   keyOption(),    udpOption(),
                    tcpOption(),    detachOption(), timeoutOption()};
        break;
    case Command::Disconnect:
        options += {endpointOption(), timeoutOption()};
        break;
    case Command::Ping:
        break;
    case Command::Watch:
        options += endpointOption();
        break;
    case Command::Raw:
        options += {endpointOption(), serverOption(), timeoutOption()};
        break;
    }
    return options;
}

CommandLine wrongUse(const QString &text, bool json)
{
    CommandLine line;
    line.isError = true;
    line.json = json;
    line.text = text;
    return line;
}

QString generalHelp()
{
    QString text = QStringLiteral("Usage: vpnctl COMMAND [options]\n\n"
                                  "Drives the VPN daemon talvexvpnd from the terminal.\n\n"
                                  "Commands:\n");
    for (const CommandHelp &help : kCommands) {
        text += QStringLiteral("  %1 %2\n")
                    .arg(QLatin1String(help.name), -11)
                    .arg(QLatin1String(help.summary));
    }
    text += QStringLiteral("\nOptions:\n"
                           "  -h, --help     Print this help; after a command, the command's.\n"
                           "  -v, --version  Print the version.\n"
                           "  --json         Print one JSON object a line, for programs.\n"
                           "\nExamples:\n");
    for (const CommandHelp &help : kCommands)
        text += QLatin1String(help.examples);
    return text
        + QStringLiteral("\nExit status: 0 done, 1 the daemon answered failure, 2 wrong use, "
                         "3 no daemon,\n4 no answer in time, 130 interrupted. "
                         "More: man vpnctl\n");
}

QString helpFor(const CommandHelp &help, const QCommandLineParser &parser)
{
    // QCommandLineParser lays out the options well; its usage line knows nothing of commands.
    const QString fromParser = parser.helpText();
    const int options = fromParser.indexOf(QLatin1String("\nOptions:"));
    return QStringLiteral("Usage: vpnctl %1\n\n%2\n%3\nExamples:\n%4")
        .arg(QLatin1String(help.usage), QLatin1String(help.description),
             fromParser.mid(options).section(QLatin1String("\nArguments:"), 0, 0),
             QLatin1String(help.examples));
}

/// Finds the command among options and their values, wherever it stands.
QStringList positionalArguments(const QStringList &arguments)
{
    QCommandLineParser parser;
    QStringList added;
    for (const CommandHelp &help : kCommands) {
        for (const QCommandLineOption &option : optionsOf(help.command)) {
            if (added.contains(option.names().constFirst()))
                continue;
            added.append(option.names().constFirst());
            parser.addOption(option);
        }
    }
    parser.parse(arguments);
    return parser.positionalArguments();
}

/// Turns the options of one command into values; the first that is wrong sets the error.
class OptionReader
{
public:
    /// @param options what the command has: QCommandLineParser warns when asked for others.
    OptionReader(const QCommandLineParser &parser, const QList<QCommandLineOption> &options)
        : m_parser(parser)
    {
        for (const QCommandLineOption &option : options)
            m_known.append(option.names().constFirst());
    }

    QString error() const { return m_error; }

    bool isSet(const QCommandLineOption &option) const
    {
        return m_known.contains(option.names().constFirst()) && m_parser.isSet(option);
    }

    QString value(const QCommandLineOption &option) const
    {
        return isSet(option) ? m_parser.value(option) : QString();
    }

    int number(const QCommandLineOption &option, int standard, int lowest, int highest)
    {
        if (!isSet(option))
            return standard;
        bool isNumber = false;
        const int number = m_parser.value(option).toInt(&isNumber);
        if (!isNumber || number < lowest || number > highest) {
            fail(QStringLiteral("--%1 must be a number from %2 to %3, not \"%4\".")
                     .arg(option.names().constLast())
                     .arg(lowest)
                     .arg(highest)
                     .arg(m_parser.value(option)));
        }
        return number;
    }

    void fail(const QString &text)
    {
        if (m_error.isEmpty())
            m_error = text;
    }

private:
    const QCommandLineParser &m_parser;
    QStringList m_known;
    QString m_error;
};

void checkConnect(const Options &options, OptionReader &reader)
{
    const int sources =
        !options.configPath.isEmpty() + !options.recordPath.isEmpty() + !options.host.isEmpty();
    if (sources != 1) {
        reader.fail(QStringLiteral("Say where to connect to, with one of --config, --server and "
                                   "--host."));
    }
    const bool hasHostOptions = options.port != 0 || !options.caPath.isEmpty()
        || !options.certPath.isEmpty() || !options.keyPath.isEmpty();
    if (options.host.isEmpty() && hasHostOptions)
        reader.fail(QStringLiteral("--port, --ca, --cert and --key go with --host only."));
    if (!options.host.isEmpty() && !isHost(options.host))
        reader.fail(QStringLiteral("\"%1\" is no host name or address.").arg(options.host));
    if (!options.host.isEmpty() && options.caPath.isEmpty())
        reader.fail(QStringLiteral("--host needs --ca, the authority's certificate."));
}

Options readOptions(Command command, const QStringList &arguments, OptionReader &reader)
{
    Options options;
    options.command = command;
    options.json = reader.isSet(jsonOption());
    options.configPath = reader.value(configOption());
    options.recordPath = reader.value(serverOption());
    options.host = reader.value(hostOption());
    options.caPath = reader.value(caOption());
    options.certPath = reader.value(certOption());
    options.keyPath = reader.value(keyOption());
    options.port = reader.number(portOption(), 0, kMinPort, kMaxPort);
    options.detach = reader.isSet(detachOption());
    options.endpoint = reader.number(endpointOption(), 0, 1, std::numeric_limits<int>::max());
    options.answerLimit = std::chrono::seconds(
        reader.number(timeoutOption(), static_cast<int>(options.answerLimit.count()), 1, 3600));
    if (reader.isSet(udpOption()) && reader.isSet(tcpOption()))
        reader.fail(QStringLiteral("--udp and --tcp exclude each other."));
    if (reader.isSet(udpOption()))
        options.transport = Transport::Udp;
    if (reader.isSet(tcpOption()))
        options.transport = Transport::Tcp;

    QStringList rest = arguments;
    if (command == Command::Raw) {
        if (rest.isEmpty())
            reader.fail(QStringLiteral("raw needs the JSON text to send."));
        else
            options.message = rest.takeFirst();
    }
    if (!rest.isEmpty())
        reader.fail(QStringLiteral("Do not know what to do with \"%1\".").arg(rest.constFirst()));

    if (command == Command::Connect)
        checkConnect(options, reader);
    const bool needsEndpoint = command == Command::Disconnect || command == Command::Watch;
    if (needsEndpoint && options.endpoint == 0)
        reader.fail(QStringLiteral("Say which endpoint, with --endpoint N."));
    return options;
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const auto isGiven = [&](const QString &word) { return arguments.mid(1).contains(word); };
    const bool json = isGiven(QStringLiteral("--json"));
    const bool wantsHelp = isGiven(QStringLiteral("--help")) || isGiven(QStringLiteral("-h"));
    const QStringList positional = positionalArguments(arguments);

    if (positional.isEmpty()) {
        CommandLine line;
        if (isGiven(QStringLiteral("--version")) || isGiven(QStringLiteral("-v")))
            line.text = QStringLiteral("vpnctl " TALVEX_VERSION "\n");
        else if (wantsHelp)
            line.text = generalHelp();
        else
            line = wrongUse(QStringLiteral("Say what to do, for example \"vpnctl ping\"."), json);
        return line;
    }

    const CommandHelp *help = commandNamed(positional.constFirst());
    if (!help)
        return wrongUse(QStringLiteral("There is no command \"%1\".").arg(positional.constFirst()),
                        json);

    QCommandLineParser parser;
    const QList<QCommandLineOption> known = optionsOf(help->command);
    parser.addOptions(known);
    if (wantsHelp) {
        CommandLine line;
        line.text = helpFor(*help, parser);
        return line;
    }
    if (!parser.parse(arguments))
        return wrongUse(parser.errorText(), json);

    OptionReader reader(parser, known);
    const Options options = readOptions(help->command, parser.positionalArguments().mid(1), reader);
    if (!reader.error().isEmpty())
        return wrongUse(reader.error(), json);
    CommandLine line;
    line.options = options;
    line.json = json;
    return line;
}

} // namespace vpnctl
