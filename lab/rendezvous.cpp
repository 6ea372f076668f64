// lab-rendezvous: the rendezvous host of the lab. Listens for registrations and tells where each came from, which is
// what a router has made of its sender's address and port; or sends one, for a peer or as a probe of a router.

#include "protocol/datagram.h"

#include <QCoreApplication>
#include <QNetworkDatagram>
#include <QStringList>
#include <QUdpSocket>

#include <cstdio>

namespace
{
constexpr char registrationType = 1;
constexpr int uuidOffset = 5;
const QUdpSocket::BindMode shared = QUdpSocket::ShareAddress; // probes leave from ports that somebody listens on

int complain(const QString &reason)
{
    std::fprintf(stderr, "lab-rendezvous: %s\n", qPrintable(reason));
    return 1;
}

/// One line for each registration: UUID, address and port it came from.
int listen(quint16 port)
{
    QUdpSocket socket;
    if (!socket.bind(QHostAddress::AnyIPv4, port, shared))
        return complain(socket.errorString());
    while (socket.waitForReadyRead(-1)) {
        while (socket.hasPendingDatagrams()) {
            const QNetworkDatagram datagram = socket.receiveDatagram();
            if (!datagram.data().startsWith(registrationType))
                continue;
            std::printf("%s %s %d\n", datagram.data().mid(uuidOffset).constData(),
                        qPrintable(datagram.senderAddress().toString()), datagram.senderPort());
            std::fflush(stdout);
        }
    }
    return complain(socket.errorString());
}

int sendRegistration(const QString &uuid, const QHostAddress &from, quint16 fromPort, const QHostAddress &to,
                     quint16 toPort)
{
    QUdpSocket socket;
    const QByteArray registration = datagram::announcement(registrationType, 0, fromPort, uuid);
    if (!socket.bind(from, fromPort, shared) || socket.writeDatagram(registration, to, toPort) < 0)
        return complain(socket.errorString());
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments().mid(1);
    if (words.size() == 2 && words.at(0) == QLatin1String("listen"))
        return listen(words.at(1).toUShort());
    if (words.size() == 6 && words.at(0) == QLatin1String("register"))
        return sendRegistration(words.at(1), QHostAddress(words.at(2)), words.at(3).toUShort(),
                                QHostAddress(words.at(4)), words.at(5).toUShort());
    return complain(QStringLiteral("use lab-rendezvous listen PORT, or lab-rendezvous register UUID FROM_ADDRESS "
                                   "FROM_PORT TO_ADDRESS TO_PORT"));
}
