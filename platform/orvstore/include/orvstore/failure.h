#pragma once

#include <string>

namespace orv::store {

/// Why a store could not be opened.
struct Failure {
    enum class Kind {
        none, ///< nothing has failed
        directory,
        data_file,
        damage, ///< the data file is not what a store's can be
        lock_file,
        busy,  ///< another process is opening or writing it, and takes its time
        store, ///< all else: LMDB's own reasons, room for example
    };

    Kind kind = Kind::none;
    std::string path;   ///< of what is in the way
    std::string doing;  ///< what could not be done: "open the data file"
    std::string reason; ///< "Permission denied"

    /// For a log: "cannot open the data file: Permission denied".
    [[nodiscard]] std::string text() const { return "cannot " + doing + ": " + reason; }
};

} // namespace orv::store
