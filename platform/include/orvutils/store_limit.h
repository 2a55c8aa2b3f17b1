#pragma once

#include <orvutils/setmgmt.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace orv {

/// How large a store's file may become, in MiB.
struct StoreLimit {
    const char* key; ///< the setting that says so, where there is one
    int normal;      ///< without it
    int least;       ///< a smaller value of the setting counts as this one,
    int most;        ///< a larger one as this one

    /// In bytes. To be asked for when the settings can be read, once for the life of a process.
    [[nodiscard]] std::size_t read() const
    {
        const int mebibytes = std::clamp(setMgmt::getKeyValue(key, normal), least, most);
        return static_cast<std::size_t>(mebibytes) * 1024 * 1024;
    }
};

} // namespace orv
