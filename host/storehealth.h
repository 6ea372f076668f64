#pragma once

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QSet>
#include <QString>

/// Why one use of the store came to nothing.
struct Failure {
    enum class Kind {
        Store,    // it cannot be opened, or its server is lost: nothing else would work either
        Lock,     // held by another program, on what this use needs
        Statement // any other: this statement and this store do not fit
    };
    Kind kind;
    QString text;
};

/// What became of the store's uses lately, each by the name of its connection. Tells who is to let the store rest, and
/// logs when the store starts to fail and when all that failed works again.
class StoreHealth
{
public:
    static StoreHealth &instance();

    /// A failure of the store itself is a rest for all uses; any other is one for those that fail.
    bool isResting(const QString &use) const;

    /// `store` is its name in the log; `duration` in ms, for which the caller stood still.
    void failed(const QString &use, const Failure &failure, const QString &store, qint64 duration);
    void worked(const QString &use, const QString &store);

private:
    void forget(const QString &use);

    bool m_isStoreFailing = false;
    QSet<QString> m_locked;  // uses whose last statement met a lock
    QSet<QString> m_misfits; // and those whose last statement failed otherwise
    QElapsedTimer m_sinceLock;
    QDeadlineTimer m_restOfAll;
    QDeadlineTimer m_restOfFailing;
};
