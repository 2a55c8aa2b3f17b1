#pragma once

#include <orvstore/layout.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct MDB_env;

namespace orv::store {

class Opened;

/// Copies what is in a store to a new file, without the free pages, a piece at a time. Takes no lock; a commit
/// to the store between two pieces is the end of it.
class Copy {
public:
    /// Null when it cannot begin. `file` is written over, and removed if the copy is not finished.
    [[nodiscard]] static std::unique_ptr<Copy> begin(Opened& source, const Layout& layout, std::string file);
    /// Copies all at once, as it is at one moment: no commit can be the end of that. `file` as above.
    [[nodiscard]] static bool make(Opened& source, const Layout& layout, std::string file);
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    ~Copy();

    enum class Progress { going_on, done, interrupted /* by a commit */, failed };

    /// Copies about so many bytes, and has them on disk. When it is done, the file is a store with the same
    /// number of its last commit, and on disk.
    [[nodiscard]] Progress go_on(Opened& source, std::size_t size);

private:
    Copy(const Layout& layout, std::string file, std::uint64_t commit);

    [[nodiscard]] bool open(std::size_t map_size);
    [[nodiscard]] int copy_piece(Opened& source, std::size_t size);
    [[nodiscard]] bool finish();

    const Layout& m_layout;
    const std::string m_file;
    const std::uint64_t m_commit; ///< of the source
    MDB_env* m_target = nullptr;
    std::size_t m_tree = 0; ///< where it goes on
    std::string m_key;      ///< the last one in that tree that has been copied; empty before the first
    bool m_is_finished = false;
};

} // namespace orv::store
