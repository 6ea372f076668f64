// What every datagram goes through: the UUID scan and the cipher.

#include "bench/relaybox.h"
#include "protocol/cipher.h"
#include "protocol/uuidscan.h"

#include <QRegExp>

#include <cryptopp/aes.h>
#include <cryptopp/modes.h>

#include <cstring>

namespace
{
constexpr int longest = 7089; // bytes of a full response packet
constexpr int repeats = 300;  // a sample

QByteArray plainRequest()
{
    return Peer().request(1, 2, "POST / HTTP/1.1\r\n\r\n" + QByteArray(6000, 'x'));
}

double scan(const QByteArray &data)
{
    return figures::timed([&] { benchmark::DoNotOptimize(datagram::findUuids(data)); }, repeats);
}

double memchrOver(const QByteArray &data)
{
    return figures::timed(
        [&] {
            for (const char *at = data.cbegin(); at != nullptr; at++) {
                at = static_cast<const char *>(memchr(at, '{', static_cast<size_t>(data.cend() - at)));
                benchmark::DoNotOptimize(at);
                if (at == nullptr)
                    return;
            }
        },
        repeats);
}

/// The start of the first UUID by the expression that defines it, tried at each offset.
double expressionOver(const QByteArray &data)
{
    const QRegExp start(QStringLiteral("\\{[a-fA-F0-9]{8}"));
    return figures::timed([&] {
        for (int i = 0; i < data.size(); i++)
            if (start.indexIn(QString::fromUtf8(data.mid(i, 9).constData())) >= 0)
                return;
    });
}

void scanRandom(benchmark::State &state)
{
    const QByteArray data = randomBytes(longest);
    const auto figure = [&] { return scan(data); };
    figures::within(3, QStringLiteral("UUID scan of 7,089 random bytes"),
                    QStringLiteral("`memchr` from brace to brace"), figures::microseconds,
                    figures::compare(state, figure, [&] { return memchrOver(data); }));
}
FIGURE(scanRandom, 200);

void scanRequest(benchmark::State &state)
{
    const QByteArray data = plainRequest();
    const auto figure = [&] { return scan(data); };
    figures::within(3, QStringLiteral("UUID scan of a plain request of 6 KB"),
                    QStringLiteral("`memchr` from brace to brace"), figures::microseconds,
                    figures::compare(state, figure, [&] { return memchrOver(data); }));
}
FIGURE(scanRequest, 200);

void scanByExpression(benchmark::State &state)
{
    const QByteArray data = randomBytes(longest);
    const auto figure = [&] { return scan(data); };
    figures::shown(QStringLiteral("the same scan of random bytes"), QStringLiteral("the expression at each offset"),
                   figures::microseconds, figures::compare(state, figure, [&] { return expressionOver(data); }));
}
FIGURE(scanByExpression, 20);

void enciphering(benchmark::State &state)
{
    const QByteArray plain = randomBytes(longest);
    QByteArray text = plain;
    auto *bytes = reinterpret_cast<CryptoPP::byte *>(text.data());
    CryptoPP::CFB_Mode<CryptoPP::AES>::Encryption keyed;
    keyed.SetKeyWithIV(reinterpret_cast<const CryptoPP::byte *>(testKey.constData()), 16,
                       reinterpret_cast<const CryptoPP::byte *>(testIv.constData()), 16);
    const auto encipher = [&] {
        return figures::timed([&] { benchmark::DoNotOptimize(cipher::encipher(plain, testKey, testIv)); }, repeats);
    };
    const auto bare = [&] { return figures::timed([&] { keyed.ProcessData(bytes, bytes, longest); }, repeats); };
    figures::within(1.2, QStringLiteral("enciphering 7,089 bytes"),
                    QStringLiteral("`ProcessData` of a cipher keyed beforehand"), figures::microseconds,
                    figures::compare(state, encipher, bare));
}
FIGURE(enciphering, 100);
} // namespace
