// Byte layouts of the introduction. A reader never looks behind the end of what came: a message that is too short reads
// as none.

#include "introduction/messages.h"

#include <algorithm>
#include <utility>

namespace introduction
{
namespace
{
/// Appends fields.
class Writer
{
public:
    template <typename Number> Writer &field(Number value)
    {
        for (std::size_t byte = sizeof value; byte > 0; byte--)
            m_bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> 8U * (byte - 1));
        return *this;
    }
    template <std::size_t size> Writer &field(const std::array<std::uint8_t, size> &bytes)
    {
        m_bytes.append(reinterpret_cast<const char *>(bytes.data()), size);
        return *this;
    }
    Writer &field(const Address &address) { return field(address.ip).field(address.port); }
    Writer &field(const Ticket &ticket) { return field(ticket.node).field(ticket.peer).field(ticket.signature); }
    /// Text behind its length, an integer of this type.
    template <typename Length> Writer &text(std::string_view bytes)
    {
        return field(static_cast<Length>(bytes.size())).rest(bytes);
    }
    /// Text without a length.
    Writer &rest(std::string_view bytes)
    {
        m_bytes.append(bytes);
        return *this;
    }
    const std::string &bytes() const { return m_bytes; }
    std::string take() { return std::move(m_bytes); }

private:
    std::string m_bytes;
};

/// Takes the same fields off; what is missing reads as zeros, and the reader is not good any more.
class Reader
{
public:
    /// `end`: bytes at the end that are no field.
    explicit Reader(std::string_view bytes, std::size_t end = 0) : m_isGood(bytes.size() >= end)
    {
        m_rest = bytes.substr(0, m_isGood ? bytes.size() - end : 0);
    }

    template <typename Number> Reader &field(Number &value)
    {
        std::uint64_t number = 0;
        for (const char byte : next(sizeof value))
            number = number << 8U | static_cast<std::uint8_t>(byte);
        value = static_cast<Number>(number);
        return *this;
    }
    template <std::size_t size> Reader &field(std::array<std::uint8_t, size> &bytes)
    {
        const std::string_view from = next(size);
        std::copy(from.cbegin(), from.cend(), bytes.begin());
        return *this;
    }
    Reader &field(Address &address) { return field(address.ip).field(address.port); }
    Reader &field(Ticket &ticket) { return field(ticket.node).field(ticket.peer).field(ticket.signature); }
    template <typename Length, typename Text> Reader &text(Text &bytes)
    {
        Length length = 0;
        field(length);
        bytes = next(length);
        return *this;
    }
    Reader &rest(std::string &bytes)
    {
        bytes = next(m_rest.size());
        return *this;
    }
    bool isGood() const { return m_isGood; }
    bool isAtEnd() const { return m_isGood && m_rest.empty(); }

private:
    std::string_view next(std::size_t length)
    {
        m_isGood = m_isGood && length <= m_rest.size();
        const std::string_view found = m_isGood ? m_rest.substr(0, length) : std::string_view();
        m_rest.remove_prefix(found.size());
        return found;
    }

    std::string_view m_rest;
    bool m_isGood;
};

/// What stands behind the kind, in this order, whoever passes: a writer or a reader. Signed messages end with a MAC.
template <typename Message> struct Layout;

template <> struct Layout<Registration> {
    static constexpr MessageKind kind = MessageKind::Registration;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.nonce).field(message.count).field(message.cookie);
    }
};

template <> struct Layout<Registered> {
    static constexpr MessageKind kind = MessageKind::Registered;
    static constexpr bool isSigned = false;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.count).field(message.seen).field(message.relayAge);
    }
};

template <> struct Layout<Challenge> {
    static constexpr MessageKind kind = MessageKind::Challenge;
    static constexpr bool isSigned = false;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.echo).field(message.cookie).field(message.boxNonce);
    }
};

template <> struct Layout<Refusal> {
    static constexpr MessageKind kind = MessageKind::Refusal;
    static constexpr bool isSigned = false;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.echo).field(message.reason);
    }
};

template <> struct Layout<Call> {
    static constexpr MessageKind kind = MessageKind::Call;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.peer).field(message.id).field(message.cookie).rest(message.sealed);
    }
};

template <> struct Layout<Ring> {
    static constexpr MessageKind kind = MessageKind::Ring;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.peer).field(message.id).field(message.ticket).rest(message.sealed);
    }
};

template <> struct Layout<Reply> {
    static constexpr MessageKind kind = MessageKind::Reply;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.peer).field(message.id).field(message.ticket).rest(message.sealed);
    }
};

template <> struct Layout<Answer> {
    static constexpr MessageKind kind = MessageKind::Answer;
    static constexpr bool isSigned = false;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.id).template text<std::uint16_t>(message.byServer).rest(message.byBox);
    }
};

template <> struct Layout<HandedCall> {
    static constexpr MessageKind kind = MessageKind::HandedCall;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.peer).field(message.id).field(message.ticket).rest(message.sealed);
    }
};

template <> struct Layout<HandedAnswer> {
    static constexpr MessageKind kind = MessageKind::HandedAnswer;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.id).field(message.ticket).rest(message.datagram);
    }
};

template <> struct Layout<Moved> {
    static constexpr MessageKind kind = MessageKind::Moved;
    static constexpr bool isSigned = true;
    template <typename Passer, typename Message> static void pass(Passer *passer, Message &message)
    {
        passer->field(message.box).field(message.nonce).field(message.count);
    }
};

template <typename Message> constexpr std::size_t longest = longestMessage;
template <> constexpr std::size_t longest<HandedCall> = longestHanded;
template <> constexpr std::size_t longest<HandedAnswer> = longestHanded;
} // namespace

template <typename Message> std::string encode(const Message &message)
{
    static_assert(!Layout<Message>::isSigned);
    Writer writer;
    writer.field(Layout<Message>::kind);
    Layout<Message>::pass(&writer, message);
    return writer.take();
}

template <typename Message> std::string encode(const Message &message, const Key &token)
{
    static_assert(Layout<Message>::isSigned);
    Writer writer;
    writer.field(Layout<Message>::kind);
    Layout<Message>::pass(&writer, message);
    writer.field(macOf(writer.bytes(), token));
    return writer.take();
}

template <typename Message> std::optional<Message> read(std::string_view bytes)
{
    Reader reader(bytes, Layout<Message>::isSigned ? macLength : 0);
    MessageKind kind{};
    Message message;
    reader.field(kind);
    Layout<Message>::pass(&reader, message);
    if (bytes.size() > longest<Message> || kind != Layout<Message>::kind || !reader.isAtEnd())
        return std::nullopt;
    return message;
}

template std::string encode(const Registration &message, const Key &token);
template std::string encode(const Registered &message);
template std::string encode(const Challenge &message);
template std::string encode(const Refusal &message);
template std::string encode(const Call &message, const Key &token);
template std::string encode(const Ring &message, const Key &token);
template std::string encode(const Reply &message, const Key &token);
template std::string encode(const Answer &message);
template std::string encode(const HandedCall &message, const Key &token);
template std::string encode(const HandedAnswer &message, const Key &token);
template std::string encode(const Moved &message, const Key &token);
template std::optional<Registration> read(std::string_view bytes);
template std::optional<Registered> read(std::string_view bytes);
template std::optional<Challenge> read(std::string_view bytes);
template std::optional<Refusal> read(std::string_view bytes);
template std::optional<Call> read(std::string_view bytes);
template std::optional<Ring> read(std::string_view bytes);
template std::optional<Reply> read(std::string_view bytes);
template std::optional<Answer> read(std::string_view bytes);
template std::optional<HandedCall> read(std::string_view bytes);
template std::optional<HandedAnswer> read(std::string_view bytes);
template std::optional<Moved> read(std::string_view bytes);

const char *nameOf(OpenWay way)
{
    constexpr std::array<const char *, 6> names{"none", "same-network", "ipv6", "direct", "punched", "carried"};
    const auto index = static_cast<std::size_t>(way);
    return index < names.size() ? names.at(index) : "other";
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
    return Writer().field(whom).field(box).field(peer).field(id).take();
}

Items &Items::add(Item type, std::string_view value)
{
    m_bytes += Writer().field(type).text<std::uint8_t>(value).take();
    return *this;
}

Items &Items::add(Item type, std::uint64_t value)
{
    return add(type, std::string_view(Writer().field(value).take()));
}

Items &Items::add(Item type, const Address &value)
{
    return add(type, std::string_view(Writer().field(value).take()));
}

std::optional<Items> Items::of(std::string_view bytes)
{
    Reader reader(bytes);
    while (!reader.isAtEnd()) {
        Item type{};
        std::string_view value;
        reader.field(type).text<std::uint8_t>(value);
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
    std::uint64_t value = 0;
    return Reader(first(type)).field(value).isAtEnd() ? value : 0;
}

std::vector<Address> Items::addresses(Item type) const
{
    std::vector<Address> addresses;
    for (const std::string_view value : all(type)) {
        Address address;
        if (Reader(value).field(address).isAtEnd())
            addresses.push_back(address);
    }
    return addresses;
}

std::vector<std::string_view> Items::all(Item type) const
{
    std::vector<std::string_view> found;
    Reader reader(m_bytes);
    while (reader.isGood() && !reader.isAtEnd()) {
        Item next{};
        std::string_view value;
        reader.field(next).text<std::uint8_t>(value);
        if (next == type && reader.isGood())
            found.push_back(value);
    }
    return found;
}
} // namespace introduction
