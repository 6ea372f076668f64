#include "client/path/udpchannel.h"

#include "protocol/datagramio.h"

UdpChannel::UdpChannel(QObject *parent) : Channel(parent)
{
    connect(&m_socket, &QUdpSocket::readyRead, this, &UdpChannel::readDatagrams);
}

bool UdpChannel::open(quint16 port)
{
    return m_socket.bind(QHostAddress(QHostAddress::Any), port, QUdpSocket::DontShareAddress);
}

void UdpChannel::send(const QByteArray &data, const QHostAddress &to, quint16 port)
{
    m_socket.writeDatagram(data, to, port);
}

void UdpChannel::readDatagrams()
{
    do {
        QHostAddress from;
        quint16 port = 0;
        const QByteArray data = datagram::take(&m_socket, &from, &port);
        if (!data.isEmpty())
            emit received(data, from, port);
    } while (m_socket.hasPendingDatagrams());
}
