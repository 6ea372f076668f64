#pragma once

#include "client/http/exchange.h"

#include <QObject>
#include <QString>

/// Writes the body of one response to standard output as it comes, and tells the relay good-bye.
class Fetch : public QObject
{
    Q_OBJECT

public:
    /// `withHead`: status line and fields go first. `mayBeError`: what the web server answers with an error (400 and
    /// more) is a response like any other, and not a failure without output.
    Fetch(RelayClient *client, bool withHead, bool mayBeError);

    /// `target` in origin form.
    void get(const QString &target);
    /// Ends early.
    void interrupt();

signals:
    void progressed(const RelayClient::Traffic &traffic);
    /// `error` is empty when the whole response has been written.
    void finished(const QString &error);

private:
    void write();
    bool isFailure() const;
    void end(const QString &error);

    RelayClient *m_client;
    Exchange m_exchange;
    bool m_isHeadWanted;
    const bool m_mayBeError;
    bool m_hasEnded = false;
    QString m_error;
};
