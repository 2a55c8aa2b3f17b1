#pragma once

#include <orvexchange/orvexchange.h>
#include <orvutils/path.h>

#include <fmt/format.h>

// How the platform's types appear in log lines.

template <>
struct fmt::formatter<orv::path> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(const orv::path& value, Context& context) const
    {
        return fmt::formatter<fmt::string_view>::format(value.str(), context);
    }
};

template <>
struct fmt::formatter<Message> {
    constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }

    template <typename Context>
    auto format(const Message& message, Context& context) const
    {
        return fmt::format_to(context.out(), "(from:{} type:{} datalen:{} data:{})", message.from,
                              message.type, message.datalen, fmt::string_view(message.data, message.datalen));
    }
};
