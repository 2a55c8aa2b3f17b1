// What is done with all of an environment at once, once it is open.
//
// Reading: one reading transaction per environment is kept for good and only renewed (which takes the current
// snapshot) and reset (which lets go of it). Both are a few stores to the reader table in shared memory, so a
// look-up makes no system call.
//
// Room: LMDB never changes a page in place, so removing takes free pages, too: the path to each entry, and, all in
// one row, those for the list of what becomes free. Adding therefore ends a sixteenth before the limit, and
// when the file has no such row at its end, removing may go beyond the limit as far as that. Other processes
// then find pages outside their map, and map the file again.
//
// Forking: a child would share its parent's place in the reader table. It therefore opens the store anew on
// its first use.

#include "opened.h"

#include "files.h"

#include <lmdb.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace orv::store {

namespace {

constexpr std::size_t kKeptBack = 16;      ///< the part of the map that is, for removing
constexpr std::size_t kPagesToRemove = 64; ///< beside the list of what becomes free: paths and splits
constexpr std::size_t kPagesToAdd = 4;     ///< beside those for the value: splits
constexpr std::size_t kMetaPages = 2;
/// LMDB's own trees.
constexpr MDB_dbi kFreeList = 0;
constexpr MDB_dbi kMainTree = 1;

/// How many forks lie between this process and the first one.
unsigned g_forks = 0;

void watch_for_forks()
{
    // Out of memory is the only possible failure; forking is then no option either.
    static const int registered = pthread_atfork(nullptr, nullptr, [] { ++g_forks; });
    (void)registered;
}

/// Errors after which the environment must be opened again; all others concern the one operation only.
bool is_fatal(int code)
{
    switch (code) {
    case MDB_PANIC:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INVALID:
    case MDB_MAP_RESIZED:
    case MDB_BAD_RSLOT:
    case MDB_BAD_DBI:
        return true;
    default:
        return false;
    }
}

} // namespace

Opened::Opened() : m_forks(g_forks)
{
    watch_for_forks();
}

Opened::~Opened()
{
    close_environment();
}

void Opened::close_environment()
{
    if (m_reader && is_own())
        mdb_txn_abort(m_reader); // in a fork's child that would give the parent's place away
    if (m_environment)
        mdb_env_close(m_environment);
    m_reader = nullptr;
    m_environment = nullptr;
}

bool Opened::is_in_place(const std::string& directory) const
{
    // Without its lock file, others would make a new one, and know nothing of those who use the old one.
    return m_file.is_same_file(file_state(data_file_in(directory))) &&
           (m_lock.queue() < 0 || m_lock_file.is_same_file(file_state(lock_file_in(directory))));
}

bool Opened::is_sound() const
{
    return !m_in_doubt && is_own();
}

bool Opened::is_own() const
{
    return m_forks == g_forks;
}

int Opened::begin_read()
{
    if (m_readings == 0) {
        int code = mdb_txn_renew(m_reader);
        if (code == MDB_MAP_RESIZED) { // the file has grown beyond its limit, to remove something
            code = mdb_env_set_mapsize(m_environment, 0);
            if (code == MDB_SUCCESS)
                code = mdb_txn_renew(m_reader);
        }
        if (code != MDB_SUCCESS)
            return code;
    }
    ++m_readings;
    return MDB_SUCCESS;
}

void Opened::end_read()
{
    if (--m_readings == 0)
        mdb_txn_reset(m_reader);
}

std::uint64_t Opened::seen_commit() const
{
    return mdb_txn_id(m_reader);
}

std::uint64_t Opened::written_commit() const
{
    MDB_envinfo written{};
    return mdb_env_info(m_environment, &written) == MDB_SUCCESS ? written.me_last_txnid : 0;
}

int Opened::publish_commit()
{
    if (const int code = m_lock.try_to_take(); code != 0)
        return code;
    // Taking the writer's mutex over from the dead does it.
    MDB_txn* transaction = nullptr;
    const int code = begin_write(transaction, /*is_to_remove=*/false);
    if (code == MDB_SUCCESS)
        mdb_txn_abort(transaction);
    m_lock.release();
    return code;
}

int Opened::begin_write(MDB_txn*& transaction, bool is_to_remove)
{
    if (const int code = fit_map(is_to_remove); code != MDB_SUCCESS)
        return code;
    return mdb_txn_begin(m_environment, nullptr, 0, &transaction);
}

/// Maps as much of the file as may be in use after the transaction that is going to begin.
int Opened::fit_map(bool is_to_remove)
{
    MDB_envinfo info{};
    if (const int code = mdb_env_info(m_environment, &info); code != MDB_SUCCESS)
        return code;
    const std::size_t end = (info.me_last_pgno + 1) * m_page_size;
    const std::size_t list = std::max(m_map_size, end) / m_page_size * sizeof(std::size_t);
    const std::size_t room = list + kPagesToRemove * m_page_size;
    std::size_t size = m_map_size;
    if (is_to_remove && end + room > size)
        size = std::min(end + room, 2 * std::max(m_map_size, m_opened_size)) / m_page_size * m_page_size;
    size = std::max(size, end);
    // What is being read must stay where it is.
    return size == info.me_mapsize || m_readings > 0 ? MDB_SUCCESS : mdb_env_set_mapsize(m_environment, size);
}

std::size_t Opened::used_pages(MDB_txn* transaction) const
{
    std::size_t pages = kMetaPages;
    const auto add = [&](MDB_dbi tree) {
        MDB_stat status{};
        if (mdb_stat(transaction, tree, &status) == MDB_SUCCESS)
            pages += status.ms_branch_pages + status.ms_leaf_pages + status.ms_overflow_pages;
    };
    for (const MDB_dbi tree : m_trees)
        add(tree);
    add(kFreeList);
    add(kMainTree);
    return pages;
}

bool Opened::has_room(MDB_txn* transaction, std::size_t size) const
{
    return used_pages(transaction) + size / m_page_size + kPagesToAdd <= page_limit();
}

/// How many pages may hold something before adding is refused.
std::size_t Opened::page_limit() const
{
    return (m_map_size - m_map_size / kKeptBack) / m_page_size;
}

Usage Opened::usage(MDB_txn* transaction) const
{
    return {std::uint64_t{used_pages(transaction)} * m_page_size, std::uint64_t{page_limit()} * m_page_size,
            0};
}

const char* Opened::note_failure(int code)
{
    if (code == MDB_MAP_FULL)
        (void)mdb_reader_check(m_environment, nullptr); // a reader that died may be what keeps pages in use
    m_in_doubt = m_in_doubt || is_fatal(code);
    return mdb_strerror(code);
}

} // namespace orv::store
