#pragma once

#include <QList>
#include <QString>

/// One setting of the relay: what it may be and what a change means.
struct SettingRule {
    enum class Effect {
        Soon,     // a running relay reads it anew
        AtStart,  // a running relay keeps what it has
        WithPeers // a running relay reads it anew; the peers' copies are out of date
    };

    const char *name;
    QString (*initial)(); // for a new store; null: it has none
    /// Empty text, or what is wrong with the value, which is called `name`.
    QString (*check)(const QString &value, const QString &name);
    Effect effect;

    /// Every setting that the programs of the box read.
    static const QList<SettingRule> &all();

    /// Null when there is no such setting.
    static const SettingRule *find(const QString &name);
};
