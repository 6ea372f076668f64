#pragma once

#include "client/path/callstream.h"
#include "client/path/udpchannel.h"
#include "client/path/way.h"
#include "handover/peerfile.h"
#include "introduction/messages.h"

#include <QElapsedTimer>
#include <QTimer>

/// The rendezvous server tells the box that this peer calls, and each where the other one is.
class ByIntroduction : public Way
{
    Q_OBJECT

public:
    /// Calls leave from `channel`, at whose outside port the box knocks.
    ByIntroduction(const PeerFile &peer, UdpChannel *channel, QObject *parent);

    QString name() const override;
    void begin() override;
    void end() override;
    bool take(const QByteArray &data, const QHostAddress &from, quint16 port) override;
    void help() override;
    void useRelayed(const QHostAddress &address, quint16 port) override;
    void loseCarrier() override;
    void opened(introduction::OpenWay way) override;
    QString silence() const override;

private:
    void ask();
    void call();
    void transmit();
    /// The present call, as it goes one way: the server sees another address of this peer on each.
    struct Line {
        std::uint64_t id = 0;
        std::uint64_t cookie = 0;
        bool isHeard = false;    // the server, since the beginning
        bool isAnswered = false; // the present call
    };

    void send(const Line &line);
    void takeMessage(Line *line, const QByteArray &data);
    void takeChallenge(Line *line, const introduction::Challenge &challenge);
    void takeRefusal(const introduction::Refusal &refusal);
    void takeAnswer(Line *line, const introduction::Answer &answer);
    void tellSides(const Line &line, const introduction::Items &byServer, const introduction::Items &byBox);
    void takeVerdict(const introduction::Items &byBox, const QList<Target> &seen);
    std::string sealed(const Line &line) const;

    const Endpoint m_server;
    const introduction::Uuid m_box;
    const introduction::Uuid m_peer;
    const introduction::Key m_token; // by which the server knows the peer
    const introduction::Key m_key;   // by which the box does
    UdpChannel *m_channel;
    QList<QHostAddress> m_addresses; // of the server, the present one first
    int m_lookup = -1;
    QTimer m_repeat;
    Line m_byUdp;
    Line m_byTcp; // where the server has not been heard
    CallStream m_stream;
    std::uint64_t m_boxNonce = 0;
    int m_sent = 0; // of the present call
    bool m_wantsBurst = false;
    introduction::Address m_relayed;                // port 0: none
    std::optional<introduction::OpenWay> m_openWay; // that the present call tells
    bool m_isAnswered = false;                      // by the box
    QString m_reason;                               // why the server or the box said no, last
};
