// How the store fares: one failure is told once, however many uses meet it, and holds up the caller's thread only so
// often.

#include "storehealth.h"

#include "logger.h"

#include <algorithm>
#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds lockMemory = 10s; // a lock that lasts longer meets another use anyway
constexpr int restFactor = 4; // rest after a failure, in times its length: a store that hangs takes a fifth of the time

QString logCategory()
{
    return QStringLiteral("STORE");
}
} // namespace

StoreHealth &StoreHealth::instance()
{
    static StoreHealth health;
    return health;
}

bool StoreHealth::isResting(const QString &use) const
{
    const bool isFailing = m_locked.contains(use) || m_misfits.contains(use);
    return !m_restOfAll.hasExpired() || (isFailing && !m_restOfFailing.hasExpired());
}

void StoreHealth::failed(const QString &use, const Failure &failure, const QString &store, qint64 duration)
{
    const QDeadlineTimer rest(restFactor * duration);
    bool isNews = !m_isStoreFailing;
    if (failure.kind == Failure::Kind::Store) {
        m_isStoreFailing = true;
        m_restOfAll = rest;
    } else {
        QSet<QString> &failing = failure.kind == Failure::Kind::Lock ? m_locked : m_misfits;
        isNews = failing.isEmpty();
        forget(use);
        failing.insert(use);
        m_restOfFailing = std::max(m_restOfFailing, rest);
        if (failure.kind == Failure::Kind::Lock)
            m_sinceLock.start();
    }
    if (isNews)
        Logger::logError(logCategory(), QStringLiteral("Store %1 fails: %2").arg(store, failure.text));
}

void StoreHealth::worked(const QString &use, const QString &store)
{
    if (!m_isStoreFailing && m_locked.isEmpty() && m_misfits.isEmpty())
        return;
    m_isStoreFailing = false;
    forget(use);
    // A use that met a lock may not come again for hours; others tell by then that the lock has gone.
    if (!m_locked.isEmpty() && m_sinceLock.hasExpired(lockMemory.count()))
        m_locked.clear();
    if (m_locked.isEmpty() && m_misfits.isEmpty())
        Logger::logInfo(logCategory(), QStringLiteral("Store %1 works again").arg(store));
}

void StoreHealth::forget(const QString &use)
{
    m_locked.remove(use);
    m_misfits.remove(use);
}
