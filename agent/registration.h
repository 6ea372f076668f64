#pragma once

#include "agent/boxsettings.h"
#include "agent/sharedport.h"
#include "introduction/messages.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QList>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

/// Keeps the box registered at its rendezvous server, over changes of the network and of the server's address. Never
/// stands still: names are looked up beside it.
class Registration : public QObject
{
    Q_OBJECT

public:
    /// `port` belongs to the caller; what comes from it is given to take().
    Registration(const BoxSettings &settings, SharedPort *port, QObject *parent = nullptr);
    ~Registration() override;
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;

    /// Registers again; call it as often as a router must see datagrams to keep its mapping.
    void refresh(std::uint64_t nonce);
    /// What came from the server and is no call.
    void take(std::string_view bytes);

signals:
    /// How long ago the relay itself registered there, where that is known and it knows no other server.
    void answered(std::optional<std::chrono::seconds> relayAge);
    void unanswered();
    /// To another of the server's addresses.
    void moved();

private:
    void reopen();
    void lookUp();
    void open(const QHostInfo &found);
    void begin();
    void send();
    void onSilence();
    void onRegistered(const introduction::Registered &message);
    void onChallenge(const introduction::Challenge &message);
    void onRefusal(const introduction::Refusal &message);

    const BoxSettings m_settings;
    SharedPort *const m_port;
    QList<QHostAddress> m_network; // this machine's addresses when the port was opened
    int m_lookup = -1;             // while the name is looked up
    int m_next = 0;                // which of the server's addresses it is
    QHostAddress m_host;
    bool m_isOneOfMany = false;
    bool m_isOpen = false;
    introduction::Registration m_message;
    int m_challenges = 0; // since the last refresh
    int m_silences = 0;   // in a row
    QTimer m_silence;
};
