// nat-peer: fetches a page from the box's web server through the relay.

#include "tools/httpreader.h"
#include "tools/peerconfig.h"
#include "tools/relayclient.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QHostInfo>
#include <QRegularExpression>

#include <csignal>
#include <cstdio>

namespace
{
constexpr int defaultTimeout = 30; // s; the relay itself gives a silent peer, behind which others wait, up 25 s

int complain(const QString &reason)
{
    std::fprintf(stderr, "nat-peer: %s\n", qPrintable(reason.simplified())); // one line, whatever a file is called
    return 1;
}

/// Writes the response as it comes and ends the event loop when it is whole or cannot become so.
class Fetch : public QObject
{
    Q_OBJECT

public:
    Fetch(RelayClient *client, bool withHeader) : m_client(client), m_withHeader(withHeader)
    {
        connect(client, &RelayClient::received, this, &Fetch::take);
        connect(client, &RelayClient::seriesEnded, this, &Fetch::endSeries);
        connect(client, &RelayClient::failed, this, &Fetch::fail);
        connect(client, &RelayClient::left, this, [this] { QCoreApplication::exit(m_status); });
    }

private:
    void take(const QByteArray &bytes)
    {
        m_reader.feed(bytes);
        QByteArray output = m_reader.takeBody();
        if (m_withHeader && !m_reader.header().isEmpty()) {
            output.prepend(m_reader.header());
            m_withHeader = false;
        }
        const bool isWritten = std::fwrite(output.constData(), 1, static_cast<size_t>(output.size()), stdout) ==
                                   static_cast<size_t>(output.size()) &&
                               std::fflush(stdout) == 0;
        if (!isWritten)
            finish(QStringLiteral("cannot write to standard output: ") + qt_error_string());
        else
            settle();
    }
    void endSeries()
    {
        m_reader.endSeries();
        settle();
    }
    void settle()
    {
        if (m_reader.isComplete() || !m_reader.error().isEmpty())
            finish(m_reader.error());
    }
    void fail(const QString &reason)
    {
        if (m_isFinished) // the farewell was not answered; what was fetched is fetched
            QCoreApplication::exit(m_status);
        else
            finish(reason);
    }
    void finish(const QString &error)
    {
        if (m_isFinished)
            return;
        m_isFinished = true;
        m_status = error.isEmpty() ? 0 : complain(error);
        m_client->leave();
    }

    RelayClient *m_client;
    bool m_withHeader;
    HttpReader m_reader;
    bool m_isFinished = false;
    int m_status = 0;
};

QHostAddress resolve(const QString &host)
{
    const QHostAddress literal(host); // an address needs no lookup, which would ask for its name
    if (!literal.isNull())
        return literal;
    return QHostInfo::fromName(host).addresses().value(0);
}
} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a closed output is an error like any other, and the relay is told all the same
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nat-peer"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Fetches a page from the web server of a box behind its router."));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Print this help."));
    const QCommandLineOption config(QStringLiteral("config"), QStringLiteral("Who talks to which box (INI file)."),
                                    QStringLiteral("file"));
    const QCommandLineOption include({QStringLiteral("i"), QStringLiteral("include")},
                                     QStringLiteral("Print status line and header fields too."));
    const QCommandLineOption timeout(
        QStringLiteral("timeout"),
        QStringLiteral("Give up when nothing new comes for so long (default %1).").arg(defaultTimeout),
        QStringLiteral("seconds"), QString::number(defaultTimeout));
    parser.addOptions({help, config, include, timeout});
    parser.addPositionalArgument(QStringLiteral("get"), QStringLiteral("The only command."), QStringLiteral("get"));
    parser.addPositionalArgument(QStringLiteral("path"), QStringLiteral("What to get, for example /index.html."),
                                 QStringLiteral("/path"));

    const QString usage = QStringLiteral("use nat-peer --config peer.ini get /path, or see nat-peer --help");
    if (!parser.parse(QCoreApplication::arguments()))
        return complain(QStringLiteral("%1; %2").arg(parser.errorText(), usage));
    if (parser.isSet(help))
        parser.showHelp(0);
    const QStringList words = parser.positionalArguments();
    if (words.size() != 2 || words.at(0) != QLatin1String("get") || !parser.isSet(config))
        return complain(usage);
    static const QRegularExpression printable(QStringLiteral("\\A/[!-~]*\\z"));
    if (!printable.match(words.at(1)).hasMatch())
        return complain(QStringLiteral("the path must begin with / and hold no spaces; encode others than ASCII "
                                       "characters as %XX"));
    bool isNumber = false;
    const int seconds = parser.value(timeout).toInt(&isNumber);
    if (!isNumber || seconds < 1 || seconds > 86400)
        return complain(QStringLiteral("the time-out must be a number of seconds from 1 to 86400"));

    const PeerConfig peer = PeerConfig::read(parser.value(config));
    if (!peer.error.isEmpty())
        return complain(peer.error);
    const QHostAddress box = resolve(peer.boxHost);
    if (box.isNull())
        return complain(QStringLiteral("no address found for %1, the box's host").arg(peer.boxHost));

    const QByteArray request =
        "GET " + words.at(1).toLatin1() + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: nat-peer\r\nAccept: */*\r\n\r\n";
    if (request.size() > RelayClient::longestRequest)
        return complain(
            QStringLiteral("the path is too long: a request must fit into %1 bytes").arg(RelayClient::longestRequest));
    RelayClient client(peer, box, 1000 * seconds);
    const Fetch fetch(&client, parser.isSet(include));
    client.send(request);
    return QCoreApplication::exec();
}

#include "natpeer.moc"
