#pragma once

#include "client/http/exchange.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTcpServer>

#include <functional>
#include <list>
#include <memory>
#include <optional>

class ProxyConnection;

/// A page of the proxy's own.
struct OwnPage {
    QByteArray type;
    QByteArray body;
};

/// An HTTP/1.1 server that brings every request to the box's web server and the response back: one at a time, as the
/// relay works. Between the parts of a long response others have their turn, those first that a page waits for.
class HttpProxy : public QObject
{
    Q_OBJECT

public:
    struct Options {
        int queueLimit = 32; // requests that wait; one more is answered 503
        bool isVerbose = false;
        /// What is at a path that begins with ownPath, if anything: nothing there is asked of the box.
        std::function<std::optional<OwnPage>(const QByteArray &path)> ownPage = {};
    };

    static constexpr char ownPath[] = "/.nat-peer/";

    HttpProxy(RelayClient *client, Options options, QObject *parent = nullptr);

    /// False when the address cannot be used; errorString() says why.
    bool listen(const QHostAddress &address, quint16 port) { return m_server.listen(address, port); }
    QString errorString() const { return m_server.errorString(); }
    bool isBusy() const { return m_current != nullptr; }

signals:
    /// One line for a person.
    void logged(const QString &line);
    /// How far the present response is.
    void progressed(const RelayClient::Traffic &traffic);

private:
    /// Who is served first.
    enum class Rank { Page, Picture, Download };
    struct Job {
        explicit Job(RelayClient *client) : exchange(client) {}
        ProxyConnection *connection = nullptr; // none any more: the client went away
        Exchange exchange;
        Rank rank = Rank::Page;
        bool isBegun = false;
        QByteArray held; // of a body that may still turn out to be short
        QElapsedTimer sinceStart;
    };
    using Jobs = std::list<std::unique_ptr<Job>>;

    static Rank rankOf(const HttpRequest &request);
    void accept();
    void leave(ProxyConnection *connection);
    void enqueue(ProxyConnection *connection);
    void answer(ProxyConnection *connection) const;
    void next();
    void forward(Job *job);
    void pause();
    void finish();
    void end(const QString &outcome, bool isTold);
    void tell(const Job &job, const QString &outcome);

    RelayClient *m_client;
    QTcpServer m_server;
    const Options m_options;
    int m_connections = 0;
    Jobs m_waiting; // who has waited longest first
    std::unique_ptr<Job> m_current;
    int m_turns = 0;
};
