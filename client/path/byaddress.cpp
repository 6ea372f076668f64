// Where the box is has been told: by its name, which may lead to another address at the next opening, or by an address.

#include "client/path/byaddress.h"

#include <QHostInfo>

#include <utility>

ByAddress::ByAddress(Endpoint box, QObject *parent) : Way(parent), m_box(std::move(box)) {}

QString ByAddress::name() const
{
    return QStringLiteral("the address of the configuration, %1").arg(m_box.host);
}

void ByAddress::begin()
{
    const auto port = static_cast<quint16>(m_box.port);
    const QHostAddress literal(m_box.host); // needs no look-up, which would ask for its name
    if (!literal.isNull())
        return emit found({{literal, port}});
    // At once, for nothing can be done without it; and not from the cache of Qt's own look-ups: an address that has
    // changed may be why the path is opened anew.
    const QHostInfo host = QHostInfo::fromName(m_box.host);
    QList<Target> targets;
    const auto addresses = host.addresses();
    for (const QHostAddress &address : addresses)
        targets.append({address, port});
    if (!targets.isEmpty())
        return emit found(targets);
    emit failed(QStringLiteral("no address found for %1, the box's host").arg(m_box.host));
}
