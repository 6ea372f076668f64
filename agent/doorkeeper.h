#pragma once

#include "agent/boxsettings.h"
#include "agent/callmemory.h"
#include "introduction/allowance.h"
#include "introduction/messages.h"

#include <QString>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A peer that is let in, and where it may be.
struct Guest {
    QString uuid;               // as its row has it
    introduction::Address seen; // by the server; port 0: it takes no datagrams there
    std::vector<introduction::Address> own;
    std::optional<introduction::Address> relayed;
    bool wantsBurst = false;
    std::optional<introduction::OpenWay> openWay; // it has one, and wants nothing
};

/// Decides on calls: who is let in, and what each is answered. Knows no sockets.
class Doorkeeper
{
public:
    explicit Doorkeeper(BoxSettings settings) : m_settings(std::move(settings)) {}

    /// What goes back to the server, and whom to knock at.
    struct Decision {
        std::string reply;
        std::optional<Guest> guest;
    };
    /// Takes a ring; nothing for what is no call of a peer's own.
    std::optional<Decision> take(std::string_view bytes, Moment now);

    /// The box's, which the server must know.
    std::uint64_t nonce(Moment now) { return m_memory.nonce(now); }

private:
    std::string sealedReply(const introduction::Ring &ring, introduction::Verdict verdict, Moment now);

    const BoxSettings m_settings;
    CallMemory m_memory;
    std::map<introduction::Uuid, Allowance> m_allowances;
};
