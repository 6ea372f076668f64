#pragma once

#include "client/http/exchange.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

class ProxyConnection;

/// An HTTP/1.1 server that brings every request to the box's web server and the response back: one at a time, as the
/// relay works, the others wait in order.
class HttpProxy : public QObject
{
    Q_OBJECT

public:
    struct Options {
        int queueLimit = 32; // requests that wait; one more is answered 503
        bool isVerbose = false;
    };

    HttpProxy(RelayClient *client, const Options &options, QObject *parent = nullptr);

    /// False when the address cannot be used; errorString() says why.
    bool listen(const QHostAddress &address, quint16 port) { return m_server.listen(address, port); }
    QString errorString() const { return m_server.errorString(); }
    bool isBusy() const { return m_isBusy; }

signals:
    /// One line for a person.
    void logged(const QString &line);
    /// How far the present response is.
    void progressed(const RelayClient::Traffic &traffic);

private:
    void accept();
    void leave(ProxyConnection *connection);
    void enqueue(ProxyConnection *connection);
    void next();
    void forward();
    void end(const QString &outcome, bool isTold);

    QTcpServer m_server;
    Exchange m_exchange;
    const Options m_options;
    int m_connections = 0;
    QList<ProxyConnection *> m_waiting;
    ProxyConnection *m_current = nullptr;
    bool m_isBusy = false;
    QByteArray m_held; // of a body that may still turn out to be short
    QElapsedTimer m_sinceStart;
};
