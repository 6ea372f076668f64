#pragma once

#include "introduction/messages.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>
#include <string_view>

class QSocketNotifier;

/// The relay's UDP port, shared with it: what the rendezvous server sends comes here, everything else to the relay, and
/// what is sent here leaves the box as if the relay had sent it.
class SharedPort : public QObject
{
    Q_OBJECT

public:
    explicit SharedPort(QObject *parent = nullptr);
    ~SharedPort() override;
    SharedPort(const SharedPort &) = delete;
    SharedPort &operator=(const SharedPort &) = delete;

    /// Opens it anew, for this server. Empty text, or why it cannot be.
    QString open(quint16 port, const introduction::Address &server);

    void close();

    // What cannot be sent is lost, as on any network.
    void sendToServer(std::string_view bytes) const;
    void sendTo(const introduction::Address &address, const QByteArray &bytes) const;

signals:
    /// From the server.
    void received(const QByteArray &bytes);

private:
    void read();

    quint16 m_port = 0;
    introduction::Address m_server;
    int m_socket = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
};
