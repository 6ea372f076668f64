#pragma once

#include "client/path/discovery.h"
#include "client/path/way.h"

#include <memory>

/// The box is on the local network, and asked for there until it replies.
class ByDiscovery : public Way
{
    Q_OBJECT

public:
    ByDiscovery(QString uuid, QString boxUuid, QObject *parent);

    QString name() const override;
    void begin() override;
    void end() override;
    QString silence() const override;

private:
    void ask();

    const QString m_uuid;
    const QString m_boxUuid;
    std::unique_ptr<Discovery> m_discovery;
    bool m_isSearching = false;
};
