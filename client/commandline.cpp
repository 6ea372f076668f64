// The command line: what there is to say, and what of it makes no sense.

#include "client/commandline.h"

#include "handover/peerfile.h"
#include "handover/valuecheck.h"

#include <algorithm>

namespace
{
/// In words: "one, two or three".
QString anyOf(QStringList names)
{
    const QString last = names.takeLast();
    return QStringLiteral("%1 or %2").arg(names.join(QLatin1String(", ")), last);
}

bool isOptional(const QString &argument)
{
    return argument.startsWith(QLatin1Char('['));
}
} // namespace

CommandLine::CommandLine(const QList<Command> &commands) : m_commands(commands)
{
    constexpr int column = 23; // where the meanings begin, unless a command is longer
    QString help = QStringLiteral("Reaches the web server of a box behind its router.\n");
    QStringList names;
    for (const Command &command : commands) {
        const QString words = QStringLiteral("%1 %2").arg(command.name, command.argument);
        help += QStringLiteral("\n  %1  %2").arg(words.leftJustified(column), command.meaning);
        names.append(command.name);
    }
    help += QStringLiteral("\n\nWhile it serves, http://127.0.0.1:8080/.nat-peer/status tells how the box is reached.");
    m_parser.setApplicationDescription(help);
    m_parser.addPositionalArgument(QStringLiteral("command"), anyOf(names) + QLatin1Char('.'),
                                   QStringLiteral("command [argument]"));
    m_parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Print this help.")});
    m_parser.addOption({QStringLiteral("version"), QStringLiteral("Print the version.")});
    m_parser.addOption({QStringLiteral("config"),
                        QStringLiteral("Who talks to which box (INI file). Without an address in it, the box is "
                                       "looked for on the local network."),
                        QStringLiteral("file")});
    m_parser.addOption({QStringLiteral("listen"),
                        QStringLiteral("serve: where browsers connect (default 127.0.0.1:8080). status: where a "
                                       "nat-peer serves that is asked, if there is one."),
                        QStringLiteral("address:port"), QStringLiteral("127.0.0.1:8080")});
    m_parser.addOption({{QStringLiteral("i"), QStringLiteral("include")},
                        QStringLiteral("get: print status line and header fields too.")});
    m_parser.addOption({QStringLiteral("fail"),
                        QStringLiteral("get: an error of the web server, 400 and more, is not printed but fails.")});
    m_parser.addOption(
        {{QStringLiteral("v"), QStringLiteral("verbose")}, QStringLiteral("serve: a line for each request.")});
    m_parser.addOption({QStringLiteral("json"), QStringLiteral("status: for programs.")});
    m_parser.addOption({QStringLiteral("punch"),
                        QStringLiteral("Open a path through routers that change ports: try more sockets and ports, "
                                       "the fewest first.")});
    addNumber("timeout", "Give up when nothing new comes for so long", "seconds", 30);
    addNumber("queue", "serve: so many requests may wait", "requests", 32);
    addNumber("udp-port", "Local UDP port, 0 for one that is free", "port", 0);
    addNumber("keep-alive", "Time between datagrams that keep the path open", "seconds", 15);
    addNumber("punch-rate", "Send at most so many datagrams while punching", "a minute", 20000);
}

QString CommandLine::read(const QStringList &arguments)
{
    if (!m_parser.parse(arguments))
        return QStringLiteral("%1; %2").arg(m_parser.errorText(), usage());
    if (isSet("help"))
        m_parser.showHelp(0);
    if (isSet("version"))
        m_parser.showVersion();
    return valuecheck::firstError({checkNumber("timeout", 1, 86400), checkNumber("queue", 1, 10000),
                                   checkNumber("udp-port", 0, 65535), checkNumber("keep-alive", 1, 3600),
                                   checkNumber("punch-rate", 100, 1000000), checkCommand()});
}

BoxPath::Options CommandLine::pathOptions(const PeerFile &peer) const
{
    constexpr std::chrono::seconds punchLimit(60); // through all steps
    BoxPath::Options how;
    how.udpPort = static_cast<quint16>(number("udp-port"));
    how.keepAlive = std::chrono::seconds(number("keep-alive"));
    how.punch = isSet("punch") || !peer.server.isEmpty();
    const std::chrono::seconds timeout(number("timeout"));
    how.openLimit = how.punch ? std::max(punchLimit, timeout) : std::min(how.openLimit, timeout);
    how.datagramsPerMinute = number("punch-rate");
    return how;
}

void CommandLine::addNumber(const char *name, const char *meaning, const char *unit, int value)
{
    m_parser.addOption({QString::fromLatin1(name),
                        QStringLiteral("%1 (default %2).").arg(QString::fromLatin1(meaning)).arg(value),
                        QString::fromLatin1(unit), QString::number(value)});
}

QString CommandLine::checkNumber(const char *name, int least, int most) const
{
    bool isNumber = false;
    const int value = text(name).toInt(&isNumber);
    return isNumber && value >= least && value <= most ? QString()
                                                       : QStringLiteral("--%1 must be a number from %2 to %3")
                                                             .arg(QString::fromLatin1(name))
                                                             .arg(least)
                                                             .arg(most);
}

QString CommandLine::checkCommand() const
{
    const Command *command = find();
    if (command == nullptr || !isSet("config"))
        return usage();
    const int arguments = m_parser.positionalArguments().size() - 1;
    const int most = command->argument.isEmpty() ? 0 : 1;
    const int least = isOptional(command->argument) ? 0 : most;
    return arguments < least || arguments > most ? usage() : QString();
}

const Command *CommandLine::find() const
{
    const QString name = m_parser.positionalArguments().value(0);
    const auto found = std::find_if(m_commands.cbegin(), m_commands.cend(),
                                    [&name](const Command &candidate) { return candidate.name == name; });
    return found == m_commands.cend() ? nullptr : &*found;
}

QString CommandLine::usage() const
{
    QStringList commands;
    for (const Command &command : m_commands)
        commands.append(isOptional(command.argument)
                            ? command.name
                            : QStringLiteral("%1 %2").arg(command.name, command.argument).trimmed());
    return QStringLiteral("use nat-peer --config peer.ini %1; see nat-peer --help").arg(anyOf(commands));
}
