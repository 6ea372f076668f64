#pragma once

#include "client/path/channel.h"
#include "client/path/turnaccount.h"
#include "client/path/turntransport.h"

#include <QElapsedTimer>
#include <QSet>
#include <QTimer>

/// Has a server carry datagrams (TURN, RFC 8656): whoever sends to an address of the server's reaches this peer, and
/// what this peer sends comes from there. The server lets in only whom it has been told.
class TurnChannel : public Channel
{
    Q_OBJECT

public:
    /// Opens at once; opened() or failed() follows.
    TurnChannel(TurnAccount account, QObject *parent);
    /// Gives the address at the server back.
    ~TurnChannel() override;

    /// Lets datagrams from this address in.
    void permit(const QHostAddress &address);
    bool isOpen() const { return m_isOpen; }
    /// For a person to read.
    QString server() const { return m_account.host + (m_transport != nullptr ? m_transport->text() : QString()); }

    void send(const QByteArray &data, const QHostAddress &to, quint16 port) override;
    bool isDirect() const override { return false; }

signals:
    /// What is sent to this address and port arrives here.
    void opened(const QHostAddress &relayed, quint16 port);
    /// One line that says why; nothing is carried any more.
    void failed(const QString &reason);

private:
    /// A request to the server, repeated until it is answered.
    struct Request {
        quint16 method = 0;
        QHostAddress peer; // of a permission
        QByteArray id;     // of the transaction
        QByteArray nonce;  // of the server's, that it was composed with
        QByteArray bytes;
        int sent = 0;
    };

    void begin(const QList<QHostAddress> &addresses);
    void next(const QString &reason);
    void ask(quint16 method, const QHostAddress &peer = QHostAddress());
    void compose(Request *request) const;
    void transmit();
    void refresh();
    void take(const QByteArray &message);
    void takeResponse(const QByteArray &message);
    void takeSuccess(const Request &request, const QByteArray &message);
    void fail(const QString &reason);

    const TurnAccount m_account;
    QList<TurnTransport::Server> m_untried; // places and kinds of transport where it may be reached
    TurnTransport *m_transport = nullptr;
    QByteArray m_realm;
    QByteArray m_nonce;
    QList<Request> m_requests;
    QSet<QHostAddress> m_permitted;
    QTimer m_repeat;
    QTimer m_refresh;
    bool m_isOpen = false;
};
