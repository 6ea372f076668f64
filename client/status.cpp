#include "client/status.h"

#include "client/relay/relayclient.h"
#include "introduction/hostaddress.h"

#include <QJsonArray>

#include <algorithm>
#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds rateSpan = 5s;
constexpr std::chrono::milliseconds shortestSpan = 1s; // of a transfer that has just begun
constexpr std::chrono::milliseconds silencePatience = 3s;

double seconds(double milliseconds)
{
    return milliseconds / 1000;
}

QJsonObject jsonOf(const Side &side)
{
    const Translation translation = translationOf(side);
    QJsonArray seen;
    for (const introduction::Address &address : side.seen) {
        const QString text = introduction::textOf(address);
        if (!seen.contains(text))
            seen.append(text);
    }
    return {{QStringLiteral("kind"), nameOf(translation)},
            {QStringLiteral("text"), textOf(translation)},
            {QStringLiteral("seen"), seen}};
}

QJsonArray jsonOf(const QList<PathRecord::Attempt> &attempts)
{
    QJsonArray tried;
    for (const PathRecord::Attempt &attempt : attempts) {
        QJsonObject json{{QStringLiteral("what"), attempt.what},
                         {QStringLiteral("outcome"), attempt.outcome},
                         {QStringLiteral("begin"), seconds(static_cast<double>(attempt.begin))}};
        if (attempt.end >= 0)
            json.insert(QStringLiteral("end"), seconds(static_cast<double>(attempt.end)));
        tried.append(json);
    }
    return tried;
}
} // namespace

Status::Status(const PeerFile &peer, const BoxPath *path, const RelayClient *client, QObject *parent)
    : QObject(parent), m_peer(peer), m_path(path)
{
    m_clock.start();
    if (client != nullptr)
        connect(client, &RelayClient::received, this, [this](const QByteArray &bytes) { count(bytes.size()); });
}

void Status::count(qint64 bytes)
{
    const qint64 now = m_clock.elapsed();
    while (!m_lately.empty() && m_lately.front().time < now - rateSpan.count())
        m_lately.pop_front();
    m_lately.push_back({now, bytes});
    m_received += bytes;
}

/// Bytes a second, in the last ones.
qint64 Status::rate() const
{
    const qint64 begin = m_clock.elapsed() - rateSpan.count();
    qint64 bytes = 0;
    qint64 span = shortestSpan.count();
    for (const Piece &piece : m_lately) {
        if (piece.time < begin)
            continue;
        bytes += piece.bytes;
        span = std::max(span, m_clock.elapsed() - piece.time);
    }
    return 1000 * bytes / span;
}

bool Status::isOf(const QJsonObject &status, const PeerFile &peer)
{
    return status[QStringLiteral("peer")] == peer.uuid && status[QStringLiteral("box")] == peer.boxUuid;
}

QJsonObject Status::json() const
{
    const PathRecord &record = m_path->record();
    const Sides sides = record.sides();
    QJsonObject status{{QStringLiteral("peer"), m_peer.uuid},
                       {QStringLiteral("box"), m_peer.boxUuid},
                       {QStringLiteral("how"), record.how()},
                       {QStringLiteral("reach"), QLatin1String(introduction::nameOf(record.reach()))},
                       {QStringLiteral("routers"), QJsonObject{{QStringLiteral("peer"), jsonOf(sides.peer)},
                                                               {QStringLiteral("box"), jsonOf(sides.box)}}},
                       {QStringLiteral("received"), m_received},
                       {QStringLiteral("rate"), rate()},
                       {QStringLiteral("tried"), jsonOf(record.attempts())}};
    if (record.roundTrip())
        status.insert(QStringLiteral("roundTrip"), seconds(*record.roundTrip()));
    if (record.phase() == PathRecord::Phase::Failed) {
        status.insert(QStringLiteral("state"), QStringLiteral("failed"));
        status.insert(QStringLiteral("reason"), record.reason());
    } else if (record.phase() != PathRecord::Phase::Open) {
        status.insert(QStringLiteral("state"), QStringLiteral("opening"));
        if (record.openingTime() > silencePatience.count())
            status.insert(QStringLiteral("reason"), m_path->silence());
    } else {
        status.insert(QStringLiteral("state"), m_path->isFresh() ? QStringLiteral("open") : QStringLiteral("silent"));
        status.insert(QStringLiteral("since"), record.since().toString(Qt::ISODate));
        status.insert(QStringLiteral("openingTime"), seconds(static_cast<double>(record.openingTime())));
        status.insert(QStringLiteral("isImproving"), m_path->isImproving());
    }
    return status;
}
