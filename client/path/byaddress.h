#pragma once

#include "client/path/way.h"
#include "handover/endpoint.h"

/// The box is where its name or address says. A name is looked up at once, which blocks meanwhile.
class ByAddress : public Way
{
    Q_OBJECT

public:
    ByAddress(Endpoint box, QObject *parent);

    QString name() const override;
    void begin() override;

private:
    const Endpoint m_box;
};
