// The way to the box is tried with copies of a long datagram, each with a short one behind it: where those are
// confirmed, the box listens. More copies follow a bad verdict, and correct it where it was bad luck. Nothing harmless
// makes the box send something long, so the way from it is known by what comes or is lost; until then it is taken to be
// like the other.

#include "client/relay/fragments.h"

#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr auto firstSpacing = 80ms;
constexpr auto laterSpacing = 500ms;
// With a fifth of all datagrams lost each way, a copy of two fragments and its confirmation pass in half of the cases:
// of these and the first one before them none does on one path in 2,700, of all on one in 3.4 million.
constexpr int firstCopies = 10;
constexpr int allCopies = 20;
constexpr int enoughConfirmed = 5;                 // of the short ones
constexpr int longestUnfragmented = 1500 - 20 - 8; // bytes of a datagram over IPv4 and Ethernet
} // namespace

Fragments::Fragments(QObject *parent) : QObject(parent)
{
    connect(&m_copies, &QTimer::timeout, this, &Fragments::sendCopies);
}

void Fragments::tryWith(const QByteArray &longOne, const QByteArray &shortOne)
{
    if (m_toBox != Way::Unknown)
        return;
    m_copies.stop();
    m_long = longOne;
    m_short = shortOne;
    m_sent = m_shortConfirmed = 0;
    emit due(m_long);
}

void Fragments::goOn()
{
    if (m_toBox == Way::Unknown && !m_long.isEmpty() && m_sent == 0 && !m_copies.isActive())
        m_copies.start(firstSpacing);
}

void Fragments::sendCopies()
{
    if (m_toBox == Way::Unknown && m_sent >= firstCopies && m_shortConfirmed >= enoughConfirmed) {
        m_toBox = Way::Closed;
        m_copies.setInterval(laterSpacing);
        tell();
        emit decided();
    } else if (m_sent < allCopies) {
        if (++m_sent == firstCopies)
            m_copies.setInterval(laterSpacing);
        emit due(m_long);
        if (m_toBox == Way::Unknown)
            emit due(m_short);
    } else {
        m_copies.stop();
        emit decided(); // or not, where the box does not listen
    }
}

void Fragments::takeConfirmation(const QByteArray &confirmation)
{
    const auto isOf = [&confirmation](const QByteArray &datagram) {
        constexpr int ids = 2 * sizeof(quint16);
        return !datagram.isEmpty() &&
               confirmation.mid(datagram::messageIdOffset, ids) == datagram.mid(datagram::messageIdOffset, ids);
    };
    if (isOf(m_long)) {
        m_copies.stop();
        m_toBox = Way::Open;
        tell();
        emit decided();
    } else if (isOf(m_short)) {
        m_shortConfirmed++;
        goOn();
    }
}

void Fragments::takeSize(int size)
{
    if (size <= longestUnfragmented)
        return;
    m_fromBox = Way::Open;
    tell();
}

void Fragments::takeLoss()
{
    if (m_fromBox == Way::Open)
        return forget(); // another network than before, or an outage
    m_fromBox = Way::Closed;
    tell();
}

void Fragments::forget()
{
    m_toBox = m_fromBox = Way::Unknown;
    m_long.clear();
    m_short.clear();
    m_copies.stop();
    m_isTold = false;
}

void Fragments::tell()
{
    if (areDropped() == m_isTold)
        return;
    m_isTold = areDropped();
    emit noticed(m_isTold ? QStringLiteral("this network drops IP fragments: long pages come in many small parts, and "
                                           "not at all where the web server gives none")
                          : QStringLiteral("IP fragments pass after all"));
}
