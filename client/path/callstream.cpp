#include "client/path/callstream.h"

#include "introduction/messages.h"

#include <QtEndian>

namespace
{
constexpr int lengthSize = 2;
} // namespace

CallStream::CallStream(QObject *parent) : QObject(parent)
{
    connect(&m_socket, &QTcpSocket::connected, this, &CallStream::opened);
    connect(&m_socket, &QTcpSocket::readyRead, this, &CallStream::read);
}

void CallStream::open(const QHostAddress &server, quint16 port)
{
    if (m_socket.state() != QAbstractSocket::UnconnectedState && server == m_server)
        return;
    close();
    m_server = server;
    m_socket.connectToHost(server, port);
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
}

void CallStream::close()
{
    m_socket.abort();
    m_unread.clear();
}

void CallStream::send(const QByteArray &message)
{
    if (!isOpen())
        return;
    QByteArray length(lengthSize, '\0');
    qToBigEndian(static_cast<quint16>(message.size()), length.data());
    m_socket.write(length + message);
}

void CallStream::read()
{
    m_unread += m_socket.readAll();
    while (m_unread.size() >= lengthSize) {
        const int length = qFromBigEndian<quint16>(m_unread.constData());
        if (length > static_cast<int>(introduction::longestMessage))
            return close();
        if (m_unread.size() < lengthSize + length)
            return;
        const QByteArray message = m_unread.mid(lengthSize, length);
        m_unread.remove(0, lengthSize + length);
        emit received(message);
    }
}
