// A burst of 1,600 connection requests, against enciphering and sending as many datagrams without the relay.

#include "bench/relaybox.h"
#include "protocol/datagram.h"

#include <cryptopp/aes.h>
#include <cryptopp/modes.h>

namespace
{
/// What one burst is at the least: a cipher object afresh and one system call for each datagram.
void bareBurst(const BareSocket &socket, const QByteArray &plain)
{
    const auto *key = reinterpret_cast<const CryptoPP::byte *>(testKey.constData());
    const auto *iv = reinterpret_cast<const CryptoPP::byte *>(testIv.constData());
    const auto length = static_cast<size_t>(plain.size());
    std::vector<CryptoPP::byte> enciphered(length);
    for (int i = 0; i < 1600; i++) {
        CryptoPP::CFB_Mode<CryptoPP::AES>::Encryption cipher;
        cipher.SetKeyWithIV(key, 16, iv, 16);
        cipher.ProcessData(enciphered.data(), reinterpret_cast<const CryptoPP::byte *>(plain.constData()), length);
        const sockaddr_in address = loopback(i < 800 ? 4001 : static_cast<quint16>(4001 - 400 + i - 800));
        sendto(socket.descriptor, enciphered.data(), length, 0, reinterpret_cast<const sockaddr *>(&address),
               sizeof address);
    }
}

void burst(benchmark::State &state)
{
    const RelayBox box(static_cast<int>(state.range(0)));
    const auto &peer = box.client(uuidOfPeer(0));
    const QByteArray plain = datagram::link(DatagramKind::ConnectRequest, box.relay->uuid, peer.remoteUuid);
    const BareSocket socket(SOCK_DGRAM);
    const auto measured = figures::compare(
        state, [&] { return figures::timed([&] { box.relay->sendBurst(peer); }); },
        [&] { return figures::timed([&] { bareBurst(socket, plain); }); });
    if (state.range(0) == 10)
        figures::within(1.3, QStringLiteral("one burst of 1,600 datagrams"),
                        QStringLiteral("the cipher, keyed for each, and `sendto`"), figures::milliseconds, measured);
    figures::grows(QStringLiteral("one burst"), QStringLiteral("peers"), state.range(0), measured.figure);
}
FIGURE(burst, 60)->RangeMultiplier(10)->Range(10, 10000);
} // namespace
