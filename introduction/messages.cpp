// Byte layouts of the introduction. A reader never looks behind the end of what came: a message that is too short reads
// as none.

#include "introduction/messages.h"

#include <algorithm>
#include <utility>

namespace introduction
{
namespace
{
class Writer
{
public:
    explicit Writer(MessageKind kind) { number(kind); }
    Writer() = default;

    template <typename Integer> Writer &number(Integer value)
    {
        for (std::size_t byte = sizeof value; byte > 0; byte--)
            m_bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> 8U * (byte - 1));
        return *this;
    }
    template <std::size_t size> Writer &array(const std::array<std::uint8_t, size> &bytes)
    {
        m_bytes.append(reinterpret_cast<const char *>(bytes.data()), size);
        return *this;
    }
    Writer &text(std::string_view bytes)
    {
        m_bytes.append(bytes);
        return *this;
    }
    Writer &address(const Address &address) { return array(address.ip).number(address.port); }
    Writer &ticket(const Ticket &ticket) { return number(ticket.node).address(ticket.peer).number(ticket.signature); }
    std::string sign(const Key &token) { return array(macOf(m_bytes, token)).take(); }
    std::string take() { return std::move(m_bytes); }

private:
    std::string m_bytes;
};

class Reader
{
public:
    explicit Reader(std::string_view bytes) : m_rest(bytes) {}
    Reader(std::string_view bytes, MessageKind kind) : m_rest(bytes)
    {
        m_isGood = bytes.size() <= longestMessage && number<std::uint8_t>() == static_cast<std::uint8_t>(kind);
    }

    template <typename Integer> Integer number()
    {
        std::uint64_t value = 0;
        for (const char byte : text(sizeof(Integer)))
            value = value << 8U | static_cast<std::uint8_t>(byte);
        return static_cast<Integer>(value);
    }
    template <std::size_t size> void array(std::array<std::uint8_t, size> *bytes)
    {
        const std::string_view from = text(size);
        std::copy(from.cbegin(), from.cend(), bytes->begin());
    }
    /// Empty where less is left.
    std::string_view text(std::size_t length)
    {
        m_isGood = m_isGood && length <= m_rest.size();
        const std::string_view found = m_isGood ? m_rest.substr(0, length) : std::string_view();
        m_rest.remove_prefix(found.size());
        return found;
    }
    /// All but so many bytes at the end.
    std::string_view allBut(std::size_t end)
    {
        m_isGood = m_isGood && end <= m_rest.size();
        return m_isGood ? text(m_rest.size() - end) : std::string_view();
    }
    Address address()
    {
        Address address;
        array(&address.ip);
        address.port = number<std::uint16_t>();
        return address;
    }
    Ticket ticket()
    {
        Ticket ticket;
        ticket.node = number<std::uint64_t>();
        ticket.peer = address();
        ticket.signature = number<std::uint64_t>();
        return ticket;
    }
    bool isGood() const { return m_isGood; }
    /// Whether nothing is missing, and nothing left but so many bytes.
    bool endsWith(std::size_t rest) const { return m_isGood && m_rest.size() == rest; }

private:
    std::string_view m_rest;
    bool m_isGood = true;
};
} // namespace

std::string encode(const Registration &message, const Key &boxToken)
{
    return Writer(MessageKind::Registration)
        .array(message.box)
        .number(message.nonce)
        .number(message.count)
        .number(message.cookie)
        .sign(boxToken);
}

template <> std::optional<Registration> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Registration);
    Registration message;
    reader.array(&message.box);
    message.nonce = reader.number<std::uint64_t>();
    message.count = reader.number<std::uint32_t>();
    message.cookie = reader.number<std::uint64_t>();
    return reader.endsWith(macLength) ? std::optional(message) : std::nullopt;
}

std::string encode(const Registered &message)
{
    return Writer(MessageKind::Registered).number(message.count).address(message.seen).take();
}

template <> std::optional<Registered> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Registered);
    Registered message;
    message.count = reader.number<std::uint32_t>();
    message.seen = reader.address();
    return reader.endsWith(0) ? std::optional(message) : std::nullopt;
}

std::string encode(const Challenge &message)
{
    return Writer(MessageKind::Challenge).number(message.echo).number(message.cookie).number(message.boxNonce).take();
}

template <> std::optional<Challenge> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Challenge);
    Challenge message;
    message.echo = reader.number<std::uint64_t>();
    message.cookie = reader.number<std::uint64_t>();
    message.boxNonce = reader.number<std::uint64_t>();
    return reader.endsWith(0) ? std::optional(message) : std::nullopt;
}

std::string encode(const Refusal &message)
{
    return Writer(MessageKind::Refusal).number(message.echo).number(message.reason).take();
}

template <> std::optional<Refusal> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Refusal);
    Refusal message;
    message.echo = reader.number<std::uint64_t>();
    message.reason = reader.number<Reason>();
    return reader.endsWith(0) ? std::optional(message) : std::nullopt;
}

std::string encode(const Call &message, const Key &peerToken)
{
    return Writer(MessageKind::Call)
        .array(message.box)
        .array(message.peer)
        .number(message.id)
        .number(message.cookie)
        .text(message.sealed)
        .sign(peerToken);
}

template <> std::optional<Call> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Call);
    Call message;
    reader.array(&message.box);
    reader.array(&message.peer);
    message.id = reader.number<std::uint64_t>();
    message.cookie = reader.number<std::uint64_t>();
    message.sealed = reader.allBut(macLength);
    return reader.endsWith(macLength) ? std::optional(std::move(message)) : std::nullopt;
}

std::string encode(const Ring &message, const Key &boxToken)
{
    return Writer(MessageKind::Ring)
        .array(message.peer)
        .number(message.id)
        .ticket(message.ticket)
        .text(message.sealed)
        .sign(boxToken);
}

template <> std::optional<Ring> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Ring);
    Ring message;
    reader.array(&message.peer);
    message.id = reader.number<std::uint64_t>();
    message.ticket = reader.ticket();
    message.sealed = reader.allBut(macLength);
    return reader.endsWith(macLength) ? std::optional(std::move(message)) : std::nullopt;
}

std::string encode(const Reply &message, const Key &boxToken)
{
    return Writer(MessageKind::Reply)
        .array(message.box)
        .array(message.peer)
        .number(message.id)
        .ticket(message.ticket)
        .text(message.sealed)
        .sign(boxToken);
}

template <> std::optional<Reply> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Reply);
    Reply message;
    reader.array(&message.box);
    reader.array(&message.peer);
    message.id = reader.number<std::uint64_t>();
    message.ticket = reader.ticket();
    message.sealed = reader.allBut(macLength);
    return reader.endsWith(macLength) ? std::optional(std::move(message)) : std::nullopt;
}

std::string encode(const Answer &message)
{
    return Writer(MessageKind::Answer)
        .number(message.id)
        .number(static_cast<std::uint16_t>(message.byServer.size()))
        .text(message.byServer)
        .text(message.byBox)
        .take();
}

template <> std::optional<Answer> read(std::string_view bytes)
{
    Reader reader(bytes, MessageKind::Answer);
    Answer message;
    message.id = reader.number<std::uint64_t>();
    message.byServer = reader.text(reader.number<std::uint16_t>());
    message.byBox = reader.allBut(0);
    return reader.endsWith(0) ? std::optional(std::move(message)) : std::nullopt;
}

bool isSigned(std::string_view bytes, const Key &token)
{
    if (bytes.size() < macLength)
        return false;
    const Mac mac = macOf(bytes.substr(0, bytes.size() - macLength), token);
    return isSame(bytes.substr(bytes.size() - macLength), {reinterpret_cast<const char *>(mac.data()), mac.size()});
}

std::string context(SealedFor whom, const Uuid &box, const Uuid &peer, std::uint64_t id)
{
    return Writer().number(whom).array(box).array(peer).number(id).take();
}

Items &Items::add(Item type, std::string_view value)
{
    m_bytes += Writer().number(type).number(static_cast<std::uint8_t>(value.size())).text(value).take();
    return *this;
}

Items &Items::add(Item type, std::uint64_t value)
{
    return add(type, std::string_view(Writer().number(value).take()));
}

Items &Items::add(Item type, const Address &value)
{
    return add(type, std::string_view(Writer().address(value).take()));
}

std::optional<Items> Items::of(std::string_view bytes)
{
    Reader reader(bytes);
    while (!reader.endsWith(0)) {
        reader.number<Item>();
        reader.text(reader.number<std::uint8_t>());
        if (!reader.isGood())
            return std::nullopt;
    }
    Items items;
    items.m_bytes = bytes;
    return items;
}

std::string_view Items::first(Item type) const
{
    const auto found = all(type);
    return found.empty() ? std::string_view() : found.front();
}

std::uint64_t Items::number(Item type) const
{
    Reader reader(first(type));
    const auto value = reader.number<std::uint64_t>();
    return reader.endsWith(0) ? value : 0;
}

std::vector<Address> Items::addresses(Item type) const
{
    std::vector<Address> addresses;
    for (const std::string_view value : all(type)) {
        Reader reader(value);
        const Address address = reader.address();
        if (reader.endsWith(0))
            addresses.push_back(address);
    }
    return addresses;
}

std::vector<std::string_view> Items::all(Item type) const
{
    std::vector<std::string_view> found;
    Reader reader(m_bytes);
    while (reader.isGood() && !reader.endsWith(0)) {
        const auto next = reader.number<Item>();
        const std::string_view value = reader.text(reader.number<std::uint8_t>());
        if (next == type && reader.isGood())
            found.push_back(value);
    }
    return found;
}
} // namespace introduction
