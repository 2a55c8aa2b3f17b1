// An identifier is 16 hexadecimal digits of a sequence number, a dash and 16 random ones: the order of the
// texts is that of their making, and no two routers or processes make the same.
//
// The sequence number is the time in microseconds, unless that would not be higher than the one before: a
// router's clock jumps, and starts in the past until it is set.

#include "event.h"

#include <orvbase/descriptor.h>
#include <orvbase/io.h>

#include <fcntl.h>
#include <sys/random.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <ctime>
#include <utility>

namespace orv::karma {

namespace {

constexpr std::size_t kDigits = 16;

std::uint64_t g_last_sequence = 0;

std::uint64_t now_us()
{
    timespec time{};
    (void)clock_gettime(CLOCK_REALTIME, &time); // this clock is always there
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000U +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000U;
}

std::string to_hex(std::uint64_t number)
{
    std::string text(kDigits, '0');
    for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number >>= 4U)
        *digit = "0123456789abcdef"[number & 0xfU];
    return text;
}

/// 0 when the identifier is not one of ours.
std::uint64_t sequence_of(const std::string& id)
{
    std::uint64_t sequence = 0;
    if (id.size() != 2 * kDigits + 1 || id[kDigits] != '-')
        return 0;
    const auto parsed = std::from_chars(id.data(), id.data() + kDigits, sequence, 16);
    return parsed.ec == std::errc() && parsed.ptr == id.data() + kDigits ? sequence : 0;
}

bool read_random_device(std::uint64_t& number)
{
    const base::Descriptor device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    return base::read_some(device.get(), &number, sizeof number) == sizeof number;
}

/// Does not wait for the kernel to have gathered randomness, which can take minutes after a router's start.
bool make_random(std::uint64_t& number)
{
    return getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number || read_random_device(number);
}

} // namespace

std::string make_event_id(const std::string& last)
{
    std::uint64_t random = 0;
    if (!make_random(random))
        return {};
    g_last_sequence = std::max({now_us(), g_last_sequence + 1, sequence_of(last) + 1});
    return to_hex(g_last_sequence) + '-' + to_hex(random);
}

const char* event_id(const json_t* event)
{
    const char* id = json_string_value(json_object_get(event, "id"));
    return id && *id != '\0' ? id : nullptr;
}

std::string event_text(const json_t* event)
{
    const TextPtr text = dump(event);
    return text ? text.get() : "";
}

JsonPtr parse_event(const std::string& text, const json_t* beside, bool& lacks_memory)
{
    JsonPtr event = parse_json(text, &lacks_memory, beside);
    return event_id(event.get()) ? std::move(event) : nullptr;
}

} // namespace orv::karma
