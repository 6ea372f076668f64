#pragma once

// clazy:excludeall=non-pod-global-static

#include "tests/support/secrets.h"

/// A box and its peer as the rendezvous server meets them.
const QByteArray secret(32, 's');
const QByteArray boxUuid = QByteArray::fromHex("00112233445566778899aabbccddeeff");
const QByteArray peerUuid = QByteArray::fromHex("0f1e2d3c4b5a69788796a5b4c3d2e1f0");
const QByteArray boxText = "{00112233-4455-6677-8899-aabbccddeeff}";

const QByteArray tokenOfBox = hkdf(secret, "box" + boxUuid);
const QByteArray tokenOfPeer = hkdf(tokenOfBox, "peer" + peerUuid);

inline QByteArray registration(quint64 nonce, quint32 count, const QByteArray &cookie, const QByteArray &token = tokenOfBox)
{
    return sign("\xa1" + boxUuid + bytesOf(nonce) + bytesOf(count) + cookie, token);
}
const QByteArray noCookie(8, '\0');
const QByteArray callId = "call id.";
inline QByteArray call(const QByteArray &cookie, const QByteArray &sealed = "for the box", const QByteArray &token = tokenOfPeer,
                       const QByteArray &peer = peerUuid)
{
    return sign("\xa5" + boxUuid + peer + callId + cookie + sealed, token);
}
/// What a box makes of a ring.
inline QByteArray reply(const QByteArray &ring) { return sign("\xa7" + boxUuid + ring.mid(1, 58) + "for the peer", tokenOfBox); }
