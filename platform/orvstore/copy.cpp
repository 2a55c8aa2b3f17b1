// LMDB's own function for this would write all at once, in a thread of its own. Entries that are appended in
// key order fill their pages, so the copy is as small as that.
//
// The numbers of commits must go on: readers compare them with those that they have seen, and records hold
// them. So the copy gets the number of the commit that it is of.

#include "copy.h"

#include "check.h"
#include "files.h"
#include "opened.h"

#include <orvbase/descriptor.h>

#include <lmdb.h>

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace orv::store {

namespace {

constexpr std::size_t kMaxKeySize = 511; ///< LMDB's own limit
/// For the pages that each commit to the copy leaves free.
constexpr std::size_t kRoomToWork = std::size_t{1024} * 1024;
/// Where nobody else has a turn in between; so much is dirty memory meanwhile.
constexpr std::size_t kCopiedAtOnce = std::size_t{1024} * 1024;

/// Ends with its scope.
class OneReading {
public:
    explicit OneReading(Opened& opened) : m_opened(opened), m_code(opened.begin_read()) {}
    OneReading(const OneReading&) = delete;
    OneReading& operator=(const OneReading&) = delete;
    ~OneReading()
    {
        if (m_code == MDB_SUCCESS)
            m_opened.end_read();
    }

    [[nodiscard]] int code() const { return m_code; }

private:
    Opened& m_opened;
    int m_code;
};

} // namespace

Copy::Copy(const Layout& layout, std::string file, std::uint64_t commit)
    : m_layout(layout), m_file(std::move(file)), m_commit(commit)
{
    m_key.reserve(kMaxKeySize); // nothing may throw within a transaction
}

Copy::~Copy()
{
    if (m_target)
        mdb_env_close(m_target);
    if (!m_is_finished)
        (void)unlink(m_file.c_str()); // what is left of it is written over next time
}

std::unique_ptr<Copy> Copy::begin(Opened& source, const Layout& layout, std::string file)
{
    const OneReading reading(source);
    if (reading.code() != MDB_SUCCESS)
        return nullptr;
    std::unique_ptr<Copy> copy(new Copy(layout, std::move(file), source.seen_commit()));
    // No more of the address space, which may be limited, than what will be in it: it is packed.
    const auto used = static_cast<std::size_t>(source.usage(source.reader()).used);
    return copy->open(used + kRoomToWork) ? std::move(copy) : nullptr;
}

bool Copy::make(Opened& source, const Layout& layout, std::string file)
{
    const OneReading reading(source); // those within see the same
    if (reading.code() != MDB_SUCCESS)
        return false;
    const auto copy = begin(source, layout, std::move(file));
    auto progress = copy ? Progress::going_on : Progress::failed;
    while (progress == Progress::going_on)
        progress = copy->go_on(source, kCopiedAtOnce);
    return progress == Progress::done;
}

bool Copy::open(std::size_t map_size)
{
    (void)unlink(m_file.c_str()); // of an attempt that was interrupted; else opening it will tell
    if (mdb_env_create(&m_target) != MDB_SUCCESS)
        return false;
    constexpr unsigned kFlags = MDB_NOSUBDIR | MDB_NOLOCK | MDB_NOSYNC;
    if (mdb_env_set_maxdbs(m_target, static_cast<unsigned>(m_layout.trees.size())) != MDB_SUCCESS ||
        mdb_env_set_mapsize(m_target, map_size) != MDB_SUCCESS ||
        mdb_env_open(m_target, m_file.c_str(), kFlags, kFileMode) != MDB_SUCCESS)
        return false;
    mdb_filehandle_t fd = -1;
    return mdb_env_get_fd(m_target, &fd) == MDB_SUCCESS && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

Copy::Progress Copy::go_on(Opened& source, std::size_t size)
{
    const OneReading reading(source);
    if (reading.code() != MDB_SUCCESS)
        return Progress::failed;
    if (source.seen_commit() != m_commit)
        return Progress::interrupted;
    if (copy_piece(source, size) != MDB_SUCCESS || mdb_env_sync(m_target, 1) != MDB_SUCCESS)
        return Progress::failed;
    if (m_tree < m_layout.trees.size())
        return Progress::going_on;
    return finish() ? Progress::done : Progress::failed;
}

/// One commit to the copy.
int Copy::copy_piece(Opened& source, std::size_t size)
{
    MDB_txn* transaction = nullptr;
    MDB_cursor* cursor = nullptr;
    int code = mdb_txn_begin(m_target, nullptr, 0, &transaction);
    for (std::size_t copied = 0; code == MDB_SUCCESS && m_tree < m_layout.trees.size() && copied < size;) {
        MDB_dbi target = 0;
        code = mdb_dbi_open(transaction, m_layout.trees[m_tree], MDB_CREATE, &target);
        if (code == MDB_SUCCESS)
            code = mdb_cursor_open(source.reader(), source.tree(m_tree), &cursor);
        MDB_val key{m_key.size(), m_key.data()};
        MDB_val value{};
        if (code == MDB_SUCCESS)
            code = mdb_cursor_get(cursor, &key, &value, m_key.empty() ? MDB_FIRST : MDB_SET);
        if (code == MDB_SUCCESS && !m_key.empty())
            code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
        while (code == MDB_SUCCESS && copied < size) {
            copied += key.mv_size + value.mv_size;
            m_key.assign(static_cast<const char*>(key.mv_data), key.mv_size);
            code = mdb_put(transaction, target, &key, &value, MDB_APPEND);
            if (code == MDB_SUCCESS)
                code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
        }
        if (code == MDB_NOTFOUND) { // the end of this tree
            code = MDB_SUCCESS;
            ++m_tree;
            m_key.clear();
        }
        mdb_cursor_close(std::exchange(cursor, nullptr));
    }
    if (code == MDB_SUCCESS)
        return mdb_txn_commit(transaction);
    mdb_txn_abort(transaction);
    return code;
}

bool Copy::finish()
{
    mdb_env_close(std::exchange(m_target, nullptr));
    const base::Descriptor file(::open(m_file.c_str(), O_RDWR | O_CLOEXEC));
    m_is_finished = file.is_open() && set_last_commit(file.get(), m_commit) && fsync(file.get()) == 0;
    return m_is_finished;
}

} // namespace orv::store
