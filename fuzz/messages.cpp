// Whatever is read as a message is written as the same bytes again, but for the signature; whatever is no list of items
// is refused, and what is one can be asked for any of them.

#include "introduction/messages.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace introduction;

namespace
{
void check(bool isRight)
{
    if (!isRight)
        std::abort();
}

template <typename Message> void readAndWrite(std::string_view bytes)
{
    if (const auto message = read<Message>(bytes))
        check(encode(*message) == bytes);
}

template <typename Message> void readAndSign(std::string_view bytes)
{
    const auto message = read<Message>(bytes);
    if (!message)
        return;
    const std::string written = encode(*message, Key());
    check(written.size() == bytes.size() && isSigned(written, Key()));
    const auto body = bytes.substr(0, bytes.size() - macLength);
    check(written.compare(0, body.size(), body) == 0);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    readAndSign<Registration>(bytes);
    readAndWrite<Registered>(bytes);
    readAndWrite<Challenge>(bytes);
    readAndWrite<Refusal>(bytes);
    readAndSign<Call>(bytes);
    readAndSign<Ring>(bytes);
    readAndSign<Reply>(bytes);
    readAndWrite<Answer>(bytes);
    readAndSign<HandedCall>(bytes);
    readAndSign<HandedAnswer>(bytes);
    readAndSign<Moved>(bytes);
    if (const auto items = Items::of(bytes)) {
        check(items->bytes() == bytes);
        for (int type = 0; type < 256; type++) {
            items->first(static_cast<Item>(type));
            items->number(static_cast<Item>(type));
            items->addresses(static_cast<Item>(type));
        }
    }
    uuidOf(bytes);
    keyOf(bytes);
    unseal(bytes, std::string_view(), Key());
    return 0;
}
