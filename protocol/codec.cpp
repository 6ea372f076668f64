// What every duty needs of the wire: the cipher under the box's key, the search for UUIDs, the checksum.

#include "core/udphandler.h"
#include "protocol/cipher.h"
#include "protocol/datagram.h"
#include "protocol/uuidscan.h"

QStringList UDPHandler::wrapUUID(const QByteArray &data) const
{
    return datagram::findUuids(data);
}

QByteArray UDPHandler::calculateChecksum(const QByteArray &data) const
{
    return datagram::checksum(data);
}

QByteArray UDPHandler::encryptMessage(QByteArray message) const
{
    return cipher::encipher(std::move(message), aesKey, aesIv);
}

QByteArray UDPHandler::decryptMessage(QByteArray message) const
{
    return cipher::decipher(std::move(message), aesKey, aesIv);
}
