#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

/// Whether IP fragments pass between peer and box. A full packet of the relay is five of them, and there are networks
/// that drop every one, while short datagrams pass. Knows nothing at the start; what it learns holds for one path.
class Fragments : public QObject
{
    Q_OBJECT

public:
    explicit Fragments(QObject *parent = nullptr);

    /// Bytes of a datagram that is never taken apart: what is left of IPv6's least MTU behind the headers of IPv6, UDP
    /// and a TURN server's carrying.
    static constexpr int longestSafe = 1280 - 40 - 8 - 48;
    /// Bytes of a whole response, status line and fields too, in such a datagram.
    static constexpr int longestResponse = longestSafe - datagram::responsePayloadOffset;

    /// Whether long responses do not come through.
    bool areDropped() const { return m_fromBox == Way::Closed || (m_toBox == Way::Closed && m_fromBox != Way::Open); }
    /// Whether a datagram of so many bytes reaches the box, as far as is known.
    bool reachesBox(int size) const { return size <= longestSafe || m_toBox != Way::Closed; }
    /// Whether anything has been done to find out.
    bool isTried() const { return !m_long.isEmpty(); }
    /// Whether that is being found out just now.
    bool isTrying() const { return m_toBox == Way::Unknown && m_copies.isActive(); }

    /// Two datagrams, of which the box confirms each copy, with the ids it has; the long one is sent once.
    void tryWith(const QByteArray &longOne, const QByteArray &shortOne);
    /// Goes on with copies of both until it is known whether the long one arrives. The short one has arrived by now.
    void goOn();
    /// The box has forgotten them: one more copy would be a request like any other.
    void stop() { m_copies.stop(); }
    void takeConfirmation(const QByteArray &confirmation);
    /// A datagram of so many bytes has come from the box.
    void takeSize(int size);
    /// An answer has not come that the box has sent for as long as it does.
    void takeLoss();
    /// The path is another one.
    void forget();

signals:
    void due(const QByteArray &datagram);
    /// isTrying() has come to its end.
    void decided();
    /// What has been found out, for a person.
    void noticed(const QString &text);

private:
    enum class Way { Unknown, Open, Closed }; // to fragments

    void sendCopies();
    void tell();

    Way m_toBox = Way::Unknown;
    Way m_fromBox = Way::Unknown;
    QByteArray m_long;
    QByteArray m_short;
    QTimer m_copies;
    int m_sent = 0;           // copies
    int m_shortConfirmed = 0; // of these
    bool m_isTold = false;    // that fragments are dropped
};
