// The settings: read from the host's store before any socket exists and every 20 s after, so that a change made by
// another program on the box needs no restart. Blocks on the store.

#include "core/hostcalls.h"
#include "core/udphandler.h"

#include <database.h>

void UDPHandler::loadSettings()
{
    hostcalls::logDebug(QStringLiteral("Load settings"));

    Database database(QStringLiteral("LoadSettings"));
    const auto text = [&database](const char *name) {
        return database.getSetting(QString::fromLatin1(name), hostcalls::noAccessKey());
    };
    // What is missing or no number becomes 0; a port keeps the low 16 bits of whatever number there is.
    const auto number = [&text](const char *name) { return text(name).toInt(nullptr, 10); };
    const auto port = [&number](const char *name) { return static_cast<quint16>(number(name)); };

    uuid = database.getSetting(QStringLiteral("uuid"), hostcalls::accessKey());
    udpPort = port("nat_udpport");
    serverUdpPort = port("nat_server_udpport");
    tcpPort = port("nat_tcpport");
    udpPortDiscover = port("nat_udpportdiscover");
    maxConnectTries = number("nat_maxconnecttries");
    connectionInterval = number("nat_connectioninterval");
    serverUpdateInterval = number("nat_server_update_interval");

    // The IV ends before its first zero byte, the key does not: on purpose. An IV of any length but 16 turns the cipher
    // off, so a box with such an IV talks in plain.
    const QByteArray iv = QByteArray::fromHex(text("aes_iv").toUtf8());
    aesIv = iv.mid(0, iv.indexOf('\0')); // -1: the whole of it
    aesKey = QByteArray::fromHex(text("aes_key").toUtf8());

    lastSettingsLoad = QDateTime::currentDateTime();
}
