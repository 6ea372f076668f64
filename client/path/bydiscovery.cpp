// A box on the local network may have any address: its UUID tells it from others, and its reply where it is.

#include "client/path/bydiscovery.h"

#include <utility>

ByDiscovery::ByDiscovery(QString uuid, QString boxUuid, QObject *parent)
    : Way(parent), m_uuid(std::move(uuid)), m_boxUuid(std::move(boxUuid))
{
}

QString ByDiscovery::name() const
{
    return QStringLiteral("the local network");
}

void ByDiscovery::begin()
{
    m_isSearching = true;
    ask();
}

/// A discovery that is under way asks its three times all the same.
void ByDiscovery::end()
{
    m_isSearching = false;
}

QString ByDiscovery::silence() const
{
    return m_isSearching ? QStringLiteral("no answer from the box on the local network: is it there? If it is "
                                          "elsewhere, the configuration must have its address")
                         : QString();
}

void ByDiscovery::ask()
{
    m_discovery = std::make_unique<Discovery>(m_uuid, QHostAddress(), Discovery::defaultPort);
    connect(m_discovery.get(), &Discovery::found, this, [this](const FoundBox &box) {
        if (box.uuid != m_boxUuid)
            return;
        m_isSearching = false;
        emit found({{box.address, box.udpPort, false}});
    });
    connect(
        m_discovery.get(), &Discovery::finished, this,
        [this] {
            if (m_isSearching)
                ask();
        },
        Qt::QueuedConnection); // the next one takes its place
}
