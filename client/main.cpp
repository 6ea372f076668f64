// nat-peer: the command line. Reaches the box's web server through the relay.

#include "client/http/fetch.h"
#include "client/http/httpproxy.h"
#include "client/path/boxpath.h"
#include "client/path/discovery.h"
#include "client/progressline.h"
#include "handover/endpoint.h"
#include "handover/peerfile.h"
#include "handover/valuecheck.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QSocketNotifier>

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>

namespace
{
const QString usage =
    QStringLiteral("use nat-peer --config peer.ini get /path, serve or discover; see nat-peer --help");

void tell(const QString &line)
{
    std::fprintf(stderr, "nat-peer: %s\n", qPrintable(line.simplified())); // one line, whatever a file is called
}

int complain(const QString &reason)
{
    tell(reason);
    return 1;
}

/// The options of the command line, and how each number may be.
class Options
{
public:
    Options()
    {
        m_parser.setApplicationDescription(
            QStringLiteral("Reaches the web server of a box behind its router.\n\n"
                           "  get /path                prints a page\n"
                           "  serve                    lets any browser reach the box, at http://127.0.0.1:8080\n"
                           "  discover [address[:port]]  lists the boxes on the local network"));
        m_parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("get, serve or discover."),
                                       QStringLiteral("command [argument]"));
        m_parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Print this help.")});
        m_parser.addOption({QStringLiteral("config"),
                            QStringLiteral("Who talks to which box (INI file). Without an address in it, the box is "
                                           "looked for on the local network."),
                            QStringLiteral("file")});
        m_parser.addOption({QStringLiteral("listen"),
                            QStringLiteral("serve: where browsers connect (default 127.0.0.1:8080)."),
                            QStringLiteral("address:port"), QStringLiteral("127.0.0.1:8080")});
        m_parser.addOption({{QStringLiteral("i"), QStringLiteral("include")},
                            QStringLiteral("get: print status line and header fields too.")});
        m_parser.addOption(
            {{QStringLiteral("v"), QStringLiteral("verbose")}, QStringLiteral("serve: a line for each request.")});
        m_parser.addOption({QStringLiteral("punch"),
                            QStringLiteral("Open a path through routers that change ports: try more sockets and ports, "
                                           "the fewest first.")});
        addNumber("timeout", "Give up when nothing new comes for so long", "seconds", 30);
        addNumber("queue", "serve: so many requests may wait", "requests", 32);
        addNumber("udp-port", "Local UDP port, 0 for any", "port", 0);
        addNumber("keep-alive", "Time between datagrams that keep the path open", "seconds", 15);
        addNumber("punch-rate", "Send at most so many datagrams while punching", "a minute", 20000);
    }

    /// The error, or empty text.
    QString read(const QStringList &arguments)
    {
        if (!m_parser.parse(arguments))
            return QStringLiteral("%1; %2").arg(m_parser.errorText(), usage);
        if (m_parser.isSet(QStringLiteral("help")))
            m_parser.showHelp(0);
        return valuecheck::firstError({checkNumber("timeout", 1, 86400), checkNumber("queue", 1, 10000),
                                       checkNumber("udp-port", 0, 65535), checkNumber("keep-alive", 1, 3600),
                                       checkNumber("punch-rate", 100, 1000000)});
    }

    QStringList words() const { return m_parser.positionalArguments(); }
    bool isSet(const char *name) const { return m_parser.isSet(QString::fromLatin1(name)); }
    QString text(const char *name) const { return m_parser.value(QString::fromLatin1(name)); }
    int number(const char *name) const { return text(name).toInt(); }

private:
    void addNumber(const char *name, const char *meaning, const char *unit, int value)
    {
        m_parser.addOption({QString::fromLatin1(name),
                            QStringLiteral("%1 (default %2).").arg(QString::fromLatin1(meaning)).arg(value),
                            QString::fromLatin1(unit), QString::number(value)});
    }
    QString checkNumber(const char *name, int least, int most) const
    {
        bool isNumber = false;
        const int value = text(name).toInt(&isNumber);
        return isNumber && value >= least && value <= most ? QString()
                                                           : QStringLiteral("--%1 must be a number from %2 to %3")
                                                                 .arg(QString::fromLatin1(name))
                                                                 .arg(least)
                                                                 .arg(most);
    }

    QCommandLineParser m_parser;
};

/// Calls `leave` once when the process is to end: a relay that is not told good-bye would go on sending.
class EndSignals
{
public:
    explicit EndSignals(const std::function<void()> &leave) : m_notifier(open(), QSocketNotifier::Read)
    {
        QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this, leave] {
            m_notifier.setEnabled(false);
            signalfd_siginfo info;
            const bool isRead = read(static_cast<int>(m_notifier.socket()), &info, sizeof info) == sizeof info;
            sigset_t ends = endSignals();
            if (isRead) // the next one ends the process at once
                sigprocmask(SIG_UNBLOCK, &ends, nullptr);
            leave();
        });
    }

private:
    static sigset_t endSignals()
    {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGINT);
        sigaddset(&ends, SIGTERM);
        return ends;
    }
    static int open()
    {
        sigset_t ends = endSignals();
        sigprocmask(SIG_BLOCK, &ends, nullptr);
        return signalfd(-1, &ends, SFD_CLOEXEC);
    }
    QSocketNotifier m_notifier;
};

int get(RelayClient *client, const Options &options)
{
    const QString target = options.words().value(1);
    static const QRegularExpression printable(QStringLiteral("\\A/[!-~]*\\z"));
    if (!printable.match(target).hasMatch())
        return complain(QStringLiteral("the path must begin with / and hold no spaces; encode others than ASCII "
                                       "characters as %XX"));
    constexpr int roomForFields = 200;
    if (target.size() > RelayClient::longestRequest - roomForFields)
        return complain(
            QStringLiteral("the path is too long: a request must fit into %1 bytes").arg(RelayClient::longestRequest));
    ProgressLine line;
    Fetch fetch(client, options.isSet("include"));
    QObject::connect(&fetch, &Fetch::progressed, [&line](const RelayClient::Traffic &traffic) { line.show(traffic); });
    QObject::connect(&fetch, &Fetch::finished, [&line](const QString &error) {
        line.clear();
        QCoreApplication::exit(error.isEmpty() ? 0 : complain(error));
    });
    const EndSignals signals_([&fetch] { fetch.interrupt(); });
    const auto begin = [&] { fetch.get(target); };
    QMetaObject::invokeMethod(&fetch, begin, Qt::QueuedConnection); // it may end at once, which the event loop must see
    return QCoreApplication::exec();
}

int serve(RelayClient *client, BoxPath *path, const Options &options)
{
    const Endpoint listen = Endpoint::ofAddress(options.text("listen"));
    if (!listen.error.isEmpty() || listen.port == Endpoint::noPort)
        return complain(QStringLiteral("--listen must be an address and a port, like 127.0.0.1:8080"));
    HttpProxy proxy(client, {options.number("queue"), options.isSet("verbose")});
    if (!proxy.listen(QHostAddress(listen.host), static_cast<quint16>(listen.port)))
        return complain(QStringLiteral("cannot listen on %1: %2; choose another one with --listen")
                            .arg(options.text("listen"), proxy.errorString()));
    ProgressLine line;
    QObject::connect(&proxy, &HttpProxy::progressed, [&](const RelayClient::Traffic &traffic) {
        if (options.isSet("verbose"))
            line.show(traffic);
    });
    QObject::connect(&proxy, &HttpProxy::logged, [&line](const QString &text) {
        line.clear();
        tell(text);
    });

    const EndSignals signals_([client] { client->leave(); });
    QObject::connect(client, &RelayClient::left, [] { QCoreApplication::exit(0); });

    QObject::connect(path, &BoxPath::opened, [] { tell(QStringLiteral("the box answers")); });
    QObject::connect(path, &BoxPath::failed, &proxy, [&proxy](const QString &reason) {
        if (!proxy.isBusy()) // or the request that fails tells
            tell(reason);
    });
    tell(QStringLiteral("open http://%1/ in a browser; Ctrl-C ends").arg(options.text("listen")));
    path->open(); // what is wrong is told now, not at the first request
    return QCoreApplication::exec();
}

int discover(const PeerFile &peer, const Options &options)
{
    const QString where = options.words().value(1);
    Endpoint target;
    if (!where.isEmpty())
        target = Endpoint::ofAddress(where);
    if (!target.error.isEmpty())
        return complain(target.error);
    const quint16 port = target.port == Endpoint::noPort ? Discovery::defaultPort : static_cast<quint16>(target.port);
    Discovery discovery(peer.uuid, QHostAddress(target.host), port);
    bool isFound = false;
    QObject::connect(&discovery, &Discovery::found, [&](const FoundBox &box) {
        isFound = true;
        std::printf("%s UDP %d TCP %d %s\n", qPrintable(box.address.toString()), box.udpPort, box.tcpPort,
                    qPrintable(box.uuid));
        std::fflush(stdout);
    });
    QObject::connect(&discovery, &Discovery::finished, [&isFound] {
        QCoreApplication::exit(isFound ? 0 : complain(QStringLiteral("no box answered within 3 s")));
    });
    return QCoreApplication::exec();
}
} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a closed output is an error like any other, and the relay is told all the same
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nat-peer"));

    Options options;
    const QString mistake = options.read(QCoreApplication::arguments());
    if (!mistake.isEmpty())
        return complain(mistake);
    const QString command = options.words().value(0);
    const int most = command == QLatin1String("serve") ? 1 : 2;
    const int least = command == QLatin1String("get") ? 2 : 1;
    const bool isKnown =
        QStringList{QStringLiteral("get"), QStringLiteral("serve"), QStringLiteral("discover")}.contains(command);
    if (!isKnown || options.words().size() < least || options.words().size() > most || !options.isSet("config"))
        return complain(usage);

    const PeerFile peer = PeerFile::read(options.text("config"));
    if (!peer.error.isEmpty())
        return complain(peer.error);
    if (command == QLatin1String("discover"))
        return discover(peer, options);

    BoxPath::Options how;
    constexpr std::chrono::seconds punchLimit(60); // through all steps
    how.udpPort = static_cast<quint16>(options.number("udp-port"));
    how.keepAlive = std::chrono::seconds(options.number("keep-alive"));
    how.punch = options.isSet("punch");
    const std::chrono::seconds timeout(options.number("timeout"));
    how.openLimit = how.punch ? std::max(punchLimit, timeout) : std::min(how.openLimit, timeout);
    how.datagramsPerMinute = options.number("punch-rate");
    BoxPath path(peer, how);
    if (!path.error().isEmpty())
        return complain(path.error());
    QObject::connect(&path, &BoxPath::progress, tell);
    constexpr int millisecondsPerSecond = 1000;
    RelayClient client(&path, peer.uuid, peer.boxUuid, millisecondsPerSecond * options.number("timeout"));
    return command == QLatin1String("get") ? get(&client, options) : serve(&client, &path, options);
}
