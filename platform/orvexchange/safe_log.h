#pragma once

#include <orvutils/log_format.h>

#include <exception>

/// As ORV_LOG and ORV_LOG_AS, for where nothing may be thrown: a line for which there is no memory is
/// dropped. @{
// NOLINTBEGIN(cppcoreguidelines-macro-usage): __FILE__, __LINE__ and __func__ of the caller
#define ORVEX_LOG(level, ...) ORVEX_LOG_AS(::orv::log::Caller{__func__}, level, __VA_ARGS__)
#define ORVEX_LOG_AS(caller, level, ...)                                                                     \
    do {                                                                                                     \
        try {                                                                                                \
            ORV_LOG_AS(caller, level, __VA_ARGS__);                                                          \
        } catch (const std::exception&) { /* nobody can be told */                                           \
        }                                                                                                    \
    } while (false)
// NOLINTEND(cppcoreguidelines-macro-usage)
/// @}
