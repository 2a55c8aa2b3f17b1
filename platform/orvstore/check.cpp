// The file is a sequence of pages. Pages 0 and 1 are meta pages, the newer of which names the roots of two
// B-trees: the list of free pages and the main tree, whose entries are the roots of the named trees. The walk
// visits every page that can be reached, once and in key order, and looks at every number in it that LMDB
// would follow. A bit per page tells a page that is used twice, which also ends every cycle. A page's nodes
// must fill its upper part without gaps or overlaps, since LMDB moves them about by their sizes; keys must
// ascend, since it searches by halving.
//
// The pages of a snapshot stay untouched for one more commit only, so a store that is being written may look
// damaged for a moment, and a meta page that is being written may be read half and half. A bad verdict
// therefore counts only when the meta page is the same after the walk.
//
// The structures are those of LMDB's data format version 1, in the machine's own word size and byte order.
// Another line of LMDB has another one: it must be looked up and understood before this is built with it. A
// file of another word size, byte order or version shows by where its first page has the magic number, how,
// and what follows it.

#include "check.h"

#include "files.h"

#include <orvbase/io.h>

#include <lmdb.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orv::store {

namespace {

using PageNumber = std::size_t;

static_assert(MDB_VERSION_MAJOR == 0 && MDB_VERSION_MINOR == 9,
              "this line of LMDB has data format version 1");

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr PageNumber kNoRoot = ~PageNumber{0};
constexpr PageNumber kMaxPages = PageNumber{1} << 20U;
constexpr std::size_t kMinPageSize = 512;
constexpr std::size_t kMaxPageSize = 32768;
constexpr int kMaxDepth = 32; ///< of LMDB's cursors
constexpr std::size_t kMaxKeySize = 511;
constexpr int kAttempts = 8;

/// Of the last shortage that reading has met since a check began; 0 for none. A page that the medium has lost is
/// damage, one that there is no memory for is not.
int g_shortage = 0;

void note_shortage()
{
    if (is_shortage(errno))
        g_shortage = errno;
}

bool read_fully(int fd, void* data, std::size_t size, std::uint64_t offset)
{
    errno = 0; // the end of the file is no error
    if (base::read_fully(fd, data, size, offset))
        return true;
    note_shortage();
    return false;
}

enum PageFlags : std::uint16_t { kBranch = 0x01, kLeaf = 0x02, kOverflow = 0x04, kMeta = 0x08 };
enum NodeFlags : std::uint16_t { kBigData = 0x01, kSubTree = 0x02 };
/// In the free list's there are also some of the environment's: that the file was no directory's when it was
/// made.
enum TreeFlags : std::uint16_t { kIntegerKey = 0x08, kNoDirectory = 0x4000 };

struct PageHeader {
    PageNumber number;
    std::uint16_t pad;
    std::uint16_t flags;
    union {
        struct {
            std::uint16_t lower; ///< end of the node offsets
            std::uint16_t upper; ///< begin of the nodes
        } space;
        std::uint32_t pages; ///< of an overflow page
    } u;
};
constexpr std::size_t kHeaderSize = sizeof(PageHeader);
static_assert(kHeaderSize == sizeof(PageNumber) + 8, "the page header has no padding");

struct NodeHeader {
    std::uint16_t half[2]; ///< of the data's size or the child's page number, in the machine's byte order
    std::uint16_t flags;   ///< in a branch: the third 16 bits of the page number
    std::uint16_t key_size;
};

struct Tree {
    std::uint32_t pad; ///< of the free list: the page size
    std::uint16_t flags;
    std::uint16_t depth;
    PageNumber branch_pages, leaf_pages, overflow_pages;
    std::size_t entries;
    PageNumber root;
};

/// Without padding: two are compared byte by byte.
struct Meta {
    std::uint32_t magic;
    std::uint32_t version;
    std::size_t address;
    std::size_t map_size;
    Tree free_list;
    Tree main;
    PageNumber last_page;
    std::size_t transaction;
};

static_assert(sizeof(Tree) == 8 + 5 * sizeof(std::size_t), "a tree has no padding");
static_assert(sizeof(Meta) == 8 + 4 * sizeof(std::size_t) + 2 * sizeof(Tree), "a meta page has no padding");

template <typename T>
T load(const std::vector<unsigned char>& bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

std::size_t data_size(const NodeHeader& node)
{
    std::uint32_t size = 0;
    std::memcpy(&size, node.half, sizeof size);
    return size;
}

PageNumber child_page(const NodeHeader& node)
{
    PageNumber number = data_size(node);
    if constexpr (sizeof(PageNumber) > 4)
        number |= static_cast<PageNumber>(node.flags) << 32U;
    return number;
}

std::string_view key_of(const std::vector<unsigned char>& page, std::size_t offset, const NodeHeader& node)
{
    return {reinterpret_cast<const char*>(page.data()) + offset + sizeof node, node.key_size};
}

/// A key of the free list: the number of the transaction that freed the pages.
std::size_t to_transaction(std::string_view key)
{
    std::size_t number = 0;
    std::memcpy(&number, key.data(), sizeof number);
    return number;
}

bool read_meta(int fd, std::uint64_t offset, Meta& meta)
{
    struct {
        PageHeader header;
        Meta meta;
    } page{};
    static_assert(offsetof(decltype(page), meta) == kHeaderSize, "the meta data follows the page header");
    if (!read_fully(fd, &page, sizeof page, offset))
        return false;
    meta = page.meta;
    return (page.header.flags & kMeta) != 0 && meta.magic == kMagic && meta.version == kVersion;
}

constexpr std::size_t kOtherWordSize = sizeof(std::size_t) == 8 ? 4 : 8;
constexpr const char* kOtherWord = sizeof(std::size_t) == 8
                                       ? "it was written by a 32-bit program, and this is a 64-bit one"
                                       : "it was written by a 64-bit program, and this is a 32-bit one";
constexpr char kOtherByteOrder[] = "it was written by a machine of the other byte order";
constexpr char kOtherVersion[] = "it is of another version of LMDB's data format";

/// LMDB counts its data formats from 1, and its developers' own is 999. Anything else is damage.
constexpr bool is_other_version(std::uint32_t version)
{
    return (version > kVersion && version <= 16) || version == 999;
}

constexpr std::uint32_t swapped(std::uint32_t number)
{
    return number >> 24U | (number >> 8U & 0xff00U) | (number << 8U & 0xff0000U) | number << 24U;
}

bool is_page_size(std::size_t size)
{
    return size >= kMinPageSize && size <= kMaxPageSize && (size & (size - 1)) == 0;
}

/// Reads both meta pages; `newest` is the one that LMDB will use.
const char* read_metas(int fd, Meta& newest)
{
    std::array<Meta, 2> metas{};
    if (!read_meta(fd, 0, metas[0]))
        return "no store's first page";
    if (!is_page_size(metas[0].free_list.pad))
        return "impossible page size";
    if (!read_meta(fd, metas[0].free_list.pad, metas[1]) || metas[1].free_list.pad != metas[0].free_list.pad)
        return "no store's second page";
    const std::size_t index = metas[0].transaction < metas[1].transaction ? 1 : 0;
    newest = metas.at(index);
    if (newest.transaction > 0 && (newest.transaction & 1U) != index)
        return "meta pages exchanged";
    if (newest.last_page < 1 || newest.last_page >= kMaxPages)
        return "impossible number of pages";
    if ((newest.free_list.flags | kNoDirectory) != (kIntegerKey | kNoDirectory))
        return "impossible flags";
    return "";
}

/// One walk over one snapshot. Every function tells whether what it looked at is sound.
class Walk {
public:
    Walk(int fd, const Meta& meta, std::uint64_t file_size)
        : m_fd(fd), m_meta(meta), m_page_size(meta.free_list.pad), m_file_pages(file_size / m_page_size),
          m_used(meta.last_page + 1)
    {
        m_used[0] = m_used[1] = true;
    }

    bool run()
    {
        // The free list comes last: the pages that it names must not be in use.
        return check_tree(m_meta.main, Kind::main) && check_tree(m_meta.free_list, Kind::free_list) &&
               check_free_pages();
    }

private:
    enum class Kind { main, named, free_list };
    using Bytes = std::vector<unsigned char>;

    /// How far the walk through one tree has come.
    struct Progress {
        Kind kind;
        std::size_t entries;
        std::string key; ///< the last one seen; empty before the first
        bool in_entry;   ///< whether it was a leaf's
    };

    bool use(PageNumber number)
    {
        if (number >= m_used.size() || m_used[number])
            return false;
        m_used[number] = true;
        return true;
    }

    bool use_in_file(PageNumber first, std::size_t count)
    {
        if (count == 0 || first >= m_file_pages || count > m_file_pages - first)
            return false;
        for (std::size_t i = 0; i < count; ++i)
            if (!use(first + i))
                return false;
        return true;
    }

    bool check_tree(const Tree& tree, Kind kind) // NOLINT(misc-no-recursion): a named tree has no trees in it
    {
        if (kind != Kind::free_list && tree.flags != 0)
            return false;
        if (tree.root == kNoRoot)
            return tree.depth == 0 && tree.entries == 0;
        Progress progress{kind, 0, {}, false};
        return tree.depth >= 1 && tree.depth <= kMaxDepth && check_page(tree.root, tree.depth, progress) &&
               progress.entries == tree.entries;
    }

    /// `height` is 1 for a leaf.
    bool check_page(PageNumber number, int height, Progress& tree) // NOLINT(misc-no-recursion): kMaxDepth
    {
        if (!use_in_file(number, 1))
            return false;
        Bytes page(m_page_size);
        if (!read_fully(m_fd, page.data(), page.size(), std::uint64_t{number} * m_page_size))
            return false;
        const auto header = load<PageHeader>(page, 0);
        const std::size_t lower = header.u.space.lower;
        const std::size_t upper = header.u.space.upper;
        if (header.number != number || header.flags != (height > 1 ? kBranch : kLeaf) ||
            lower < kHeaderSize || lower > upper || upper > m_page_size || lower % 2 != 0)
            return false;
        std::vector<std::uint16_t> offsets((lower - kHeaderSize) / 2);
        if (offsets.size() < (height > 1 && tree.kind != Kind::free_list ? 2U : 1U))
            return false;
        std::memcpy(offsets.data(), page.data() + kHeaderSize, lower - kHeaderSize);
        return do_nodes_fill(page, offsets, upper, height) && check_nodes(page, offsets, height, tree);
    }

    /// Whether the nodes lie one after the other from `upper` to the page's end.
    bool do_nodes_fill(const Bytes& page, std::vector<std::uint16_t> offsets, std::size_t upper,
                       int height) const
    {
        std::sort(offsets.begin(), offsets.end());
        std::size_t end = upper;
        for (const std::size_t offset : offsets) {
            if (offset != end || offset % 2 != 0 || m_page_size - offset < sizeof(NodeHeader))
                return false;
            const std::size_t size = node_size(load<NodeHeader>(page, offset), height);
            if (size == 0 || size > m_page_size - offset)
                return false;
            end = offset + size;
        }
        return end == m_page_size;
    }

    /// 0 for an impossible node.
    [[nodiscard]] std::size_t node_size(const NodeHeader& node, int height) const
    {
        std::size_t size = sizeof node + node.key_size;
        if (node.key_size > kMaxKeySize)
            return 0;
        if (height == 1 && node.flags == kBigData) {
            size += sizeof(PageNumber);
        } else if (height == 1) {
            // At least two nodes fit in a page; larger data has pages of its own.
            const std::size_t limit = (m_page_size - kHeaderSize) / 4 * 2 - sizeof(std::uint16_t);
            if (size > limit || data_size(node) > limit - size)
                return 0;
            size += data_size(node);
        }
        return size + size % 2;
    }

    // NOLINTNEXTLINE(misc-no-recursion): kMaxDepth
    bool check_nodes(const Bytes& page, const std::vector<std::uint16_t>& offsets, int height, Progress& tree)
    {
        for (std::size_t i = 0; i < offsets.size(); ++i) {
            const auto node = load<NodeHeader>(page, offsets[i]);
            // A branch's first key means nothing and is empty as a rule.
            if ((height == 1 || i > 0) && !check_key(key_of(page, offsets[i], node), height == 1, tree))
                return false;
            if (!(height > 1 ? check_page(child_page(node), height - 1, tree)
                             : check_entry(page, offsets[i], node, tree.kind)))
                return false;
        }
        return true;
    }

    bool check_key(std::string_view key, bool in_entry, Progress& tree) const
    {
        if (key.empty() || (tree.kind == Kind::free_list && !is_past_transaction(key)))
            return false;
        const int order = tree.key.empty() ? 1 : compare(key, tree.key, tree.kind);
        // A branch's key is the lowest that may come below it.
        if (order < 0 || (order == 0 && (tree.in_entry || !in_entry)))
            return false;
        tree.key = key;
        tree.in_entry = in_entry;
        tree.entries += in_entry ? 1 : 0;
        return true;
    }

    [[nodiscard]] bool is_past_transaction(std::string_view key) const
    {
        return key.size() == sizeof(std::size_t) && to_transaction(key) > 0 &&
               to_transaction(key) <= m_meta.transaction;
    }

    static int compare(std::string_view key, std::string_view other, Kind kind)
    {
        if (kind != Kind::free_list)
            return key.compare(other);
        const std::size_t number = to_transaction(key);
        const std::size_t other_number = to_transaction(other);
        return number < other_number ? -1 : static_cast<int>(number > other_number);
    }

    // NOLINTNEXTLINE(misc-no-recursion): a named tree has no trees in it
    bool check_entry(const Bytes& page, std::size_t offset, const NodeHeader& node, Kind kind)
    {
        const std::size_t data = offset + sizeof node + node.key_size;
        if (kind == Kind::main)
            return node.flags == kSubTree && data_size(node) == sizeof(Tree) &&
                   check_tree(load<Tree>(page, data), Kind::named);
        if (node.flags == kBigData)
            return check_big_data(load<PageNumber>(page, data), data_size(node), kind);
        if (kind == Kind::free_list)
            m_free_lists.emplace_back(page.begin() + static_cast<std::ptrdiff_t>(data),
                                      page.begin() + static_cast<std::ptrdiff_t>(data + data_size(node)));
        return node.flags == 0;
    }

    bool check_big_data(PageNumber first, std::size_t size, Kind kind)
    {
        PageHeader header{};
        if (first >= m_file_pages ||
            !read_fully(m_fd, &header, sizeof header, std::uint64_t{first} * m_page_size))
            return false;
        if (header.number != first || header.flags != kOverflow || !use_in_file(first, header.u.pages) ||
            size > std::uint64_t{header.u.pages} * m_page_size - kHeaderSize)
            return false;
        if (kind != Kind::free_list)
            return true;
        Bytes list(size);
        if (!read_fully(m_fd, list.data(), size, std::uint64_t{first} * m_page_size + kHeaderSize))
            return false;
        m_free_lists.push_back(std::move(list));
        return true;
    }

    bool check_free_pages()
    {
        return std::all_of(m_free_lists.begin(), m_free_lists.end(),
                           [this](const Bytes& list) { return check_free_list(list); });
    }

    /// A list is its length and then page numbers, the highest first.
    bool check_free_list(const Bytes& list)
    {
        if (list.size() < sizeof(PageNumber) || list.size() % sizeof(PageNumber) != 0)
            return false;
        const auto count = load<PageNumber>(list, 0);
        if (count > list.size() / sizeof(PageNumber) - 1)
            return false;
        PageNumber before = kNoRoot;
        for (std::size_t i = 1; i <= count; ++i) {
            const auto number = load<PageNumber>(list, i * sizeof(PageNumber));
            if (number >= before || !use(number))
                return false;
            before = number;
        }
        return true;
    }

    int m_fd;
    const Meta& m_meta;
    std::size_t m_page_size;
    std::uint64_t m_file_pages;
    std::vector<bool> m_used;
    std::vector<Bytes> m_free_lists;
};

/// False for what is no regular file.
bool file_size(int fd, std::uint64_t& size)
{
    struct stat status {};
    if (fstat(fd, &status) < 0) {
        note_shortage();
        return false;
    }
    if (!S_ISREG(status.st_mode))
        return false;
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
}

/// The size of the pages of a store that is created here and now.
std::size_t native_page_size()
{
    const long size = sysconf(_SC_PAGESIZE);
    return std::clamp(size < 0 ? std::size_t{0} : static_cast<std::size_t>(size), kMinPageSize, kMaxPageSize);
}

bool is_zero(int fd, std::uint64_t offset, std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    return read_fully(fd, bytes.data(), size, offset) &&
           std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
}

/// A meta page as LMDB writes it first of all.
bool is_first_meta(int fd, std::uint64_t offset)
{
    Meta meta{};
    return read_meta(fd, offset, meta) && meta.transaction == 0 && meta.last_page == 1;
}

/// LMDB writes both meta pages at once when it creates a store, and those of a synced store are on disk
/// before anything else is written. An interruption meanwhile may cut the file short, or leave either page
/// zero.
bool is_unfinished(int fd, std::uint64_t size)
{
    const std::uint64_t page_size = native_page_size();
    if (size > 2 * page_size)
        return false;
    const auto is_blank = [&](std::uint64_t offset) {
        const std::uint64_t rest = offset < size ? size - offset : 0;
        return is_zero(fd, offset, static_cast<std::size_t>(std::min(page_size, rest)));
    };
    if (is_first_meta(fd, 0))
        return size < 2 * page_size || is_blank(page_size);
    return is_blank(0) && (is_blank(page_size) || is_first_meta(fd, page_size));
}

/// The newest meta page of a data file. False when there is none.
bool read_newest_meta(int fd, Meta& meta)
{
    std::uint64_t size = 0;
    return file_size(fd, size) && size > 0 && *read_metas(fd, meta) == '\0';
}

} // namespace

std::uint64_t last_commit_in(int fd)
{
    Meta meta{};
    return read_newest_meta(fd, meta) ? meta.transaction : 0;
}

bool set_last_commit(int fd, std::uint64_t number)
{
    Meta meta{};
    if (number == 0 || !read_newest_meta(fd, meta))
        return false;
    meta.free_list.flags = kIntegerKey;
    // Both pages become the same but for their numbers, which tell which of them is the newer one: even
    // numbers are on the first page.
    const std::uint64_t page_size = meta.free_list.pad;
    for (const std::uint64_t page : {number & 1U, (number - 1) & 1U}) {
        meta.transaction = static_cast<std::size_t>(page == (number & 1U) ? number : number - 1);
        const auto offset = static_cast<off_t>(page * page_size + kHeaderSize);
        if (pwrite(fd, &meta, sizeof meta, offset) != static_cast<ssize_t>(sizeof meta))
            return false;
    }
    return true;
}

const char* foreign_origin(int fd)
{
    constexpr std::size_t kOtherHeaderSize = kOtherWordSize + 8;
    std::array<std::uint32_t, std::max(kHeaderSize, kOtherHeaderSize) / 4 + 2> page{};
    if (!read_fully(fd, page.data(), sizeof page, 0))
        return "";
    const std::uint32_t own = page.at(kHeaderSize / 4);
    const std::uint32_t other = page.at(kOtherHeaderSize / 4);
    if (own == kMagic)
        return is_other_version(page.at(kHeaderSize / 4 + 1)) ? kOtherVersion : "";
    if (own == swapped(kMagic) || other == swapped(kMagic))
        return kOtherByteOrder;
    return other == kMagic ? kOtherWord : "";
}

namespace {

StoreVerdict look_at(int fd)
{
    std::uint64_t size = 0;
    if (!file_size(fd, size))
        return {StoreState::damaged, "no regular file"};
    if (size == 0)
        return {StoreState::empty, ""};
    if (const char* origin = foreign_origin(fd); *origin != '\0')
        return {StoreState::foreign, origin};
    if (is_unfinished(fd, size))
        return {StoreState::unfinished, ""};
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Meta meta{};
        const char* reason = read_metas(fd, meta);
        // The size comes after the snapshot, whose pages it must cover.
        if (*reason == '\0' && file_size(fd, size) && Walk(fd, meta, size).run())
            return {StoreState::sound, ""};
        Meta now{};
        (void)read_metas(fd, now);
        if (std::memcmp(&now, &meta, sizeof meta) == 0)
            return {StoreState::damaged, *reason != '\0' ? reason : "broken page structure"};
    }
    return {StoreState::sound, ""}; // whoever commits that quickly has the store open and finds it sound
}

} // namespace

StoreVerdict check_store_file(int fd)
{
    g_shortage = 0;
    const StoreVerdict verdict = look_at(fd);
    if (g_shortage == 0)
        return verdict;
    errno = g_shortage;
    return {StoreState::unreadable, ""};
}

} // namespace orv::store
