// The link that a person pastes: whatever is taken for one gives a file of just its values, and the same again as a
// link.

#include "handover/peerfile.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const PeerFile peer = PeerFile::ofLink(QString::fromUtf8(bytes));
    if (!peer.error.isEmpty())
        return peer.error.contains(QLatin1Char('\n')) ? std::abort(), 1 : 0;
    const QByteArray ini = peer.toIni();
    constexpr int linesOfBox = 6; // two sections, two UUIDs, key and IV
    constexpr int linesOfIntroduction = 4;
    const int lines = linesOfBox + (peer.address.isEmpty() ? 0 : 1) + (peer.server.isEmpty() ? 0 : linesOfIntroduction);
    if (ini.count('\n') != lines || PeerFile::ofLink(QString::fromUtf8(peer.toLink())).toIni() != ini)
        std::abort();
    return 0;
}
