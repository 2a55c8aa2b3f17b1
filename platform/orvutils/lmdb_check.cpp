// The file is a sequence of pages. Pages 0 and 1 are meta pages, the newer of which names the roots of two
// B-trees: the list of free pages and the main tree, whose entries are the roots of the named trees. The walk
// visits every page that can be reached, once, and looks at every number in it that LMDB would follow. A bit
// per page tells a page that is used twice, which also ends every cycle.
//
// The pages of a snapshot stay untouched for one more commit only, so a store that is being written may look
// damaged for a moment, and a meta page that is being written may be read half and half. A bad verdict
// therefore counts only when the meta page is the same after the walk.
//
// The structures are those of LMDB's data format version 1, in the machine's own word size and byte order.

#include "lmdb_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

namespace orv::detail {

namespace {

using PageNumber = std::size_t;

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr PageNumber kNoRoot = ~PageNumber{0};
constexpr PageNumber kMaxPages = PageNumber{1} << 20U;
constexpr std::size_t kMinPageSize = 512;
constexpr std::size_t kMaxPageSize = 32768;
constexpr int kMaxDepth = 32; ///< of LMDB's cursors
constexpr int kAttempts = 8;

enum PageFlags : std::uint16_t { kBranch = 0x01, kLeaf = 0x02, kOverflow = 0x04, kMeta = 0x08 };
enum NodeFlags : std::uint16_t { kBigData = 0x01, kSubTree = 0x02 };
enum TreeFlags : std::uint16_t { kFixedMap = 0x01, kIntegerKey = 0x08 };

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

bool read_fully(int fd, void* data, std::size_t size, std::uint64_t offset)
{
    auto* to = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t count = pread(fd, to, size, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        to += count;
        size -= static_cast<std::size_t>(count);
        offset += static_cast<std::uint64_t>(count);
    }
    return true;
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
    if ((newest.free_list.flags & (kFixedMap | kIntegerKey)) != kIntegerKey)
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

    bool check_tree(const Tree& tree, Kind kind)
    {
        if (kind != Kind::free_list && tree.flags != 0)
            return false;
        if (tree.root == kNoRoot)
            return tree.depth == 0;
        return tree.depth >= 1 && tree.depth <= kMaxDepth && check_page(tree.root, tree.depth, kind);
    }

    /// `height` is 1 for a leaf.
    bool check_page(PageNumber number, int height, Kind kind) // NOLINT(misc-no-recursion): kMaxDepth
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
        const std::size_t nodes = (lower - kHeaderSize) / 2;
        if (nodes < (height > 1 && kind != Kind::free_list ? 2U : 1U))
            return false;
        for (std::size_t i = 0; i < nodes; ++i)
            if (!check_node(page, load<std::uint16_t>(page, kHeaderSize + 2 * i), upper, height, kind))
                return false;
        return true;
    }

    // NOLINTNEXTLINE(misc-no-recursion): kMaxDepth
    bool check_node(const Bytes& page, std::size_t offset, std::size_t upper, int height, Kind kind)
    {
        if (offset < upper || offset % 2 != 0 || offset + sizeof(NodeHeader) > m_page_size)
            return false;
        const auto node = load<NodeHeader>(page, offset);
        const std::size_t data = offset + sizeof(NodeHeader) + node.key_size;
        if (data > m_page_size)
            return false;
        if (height > 1)
            return check_page(child_page(node), height - 1, kind);
        if (node.flags == kBigData)
            return check_big_data(page, data, data_size(node), kind);
        if (data_size(node) > m_page_size - data)
            return false;
        if (node.flags == kSubTree)
            return kind == Kind::main && data_size(node) == sizeof(Tree) &&
                   check_tree(load<Tree>(page, data), Kind::named);
        if (kind == Kind::free_list)
            note_free_pages({page.begin() + static_cast<std::ptrdiff_t>(data),
                             page.begin() + static_cast<std::ptrdiff_t>(data + data_size(node))},
                            node.key_size);
        return node.flags == 0;
    }

    bool check_big_data(const Bytes& page, std::size_t data, std::size_t size, Kind kind)
    {
        if (m_page_size - data < sizeof(PageNumber))
            return false;
        const auto first = load<PageNumber>(page, data);
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
        note_free_pages(std::move(list), sizeof(std::size_t));
        return true;
    }

    void note_free_pages(Bytes list, std::size_t key_size)
    {
        m_free_keys_sound = m_free_keys_sound && key_size == sizeof(std::size_t);
        m_free_lists.push_back(std::move(list));
    }

    bool check_free_pages()
    {
        for (const Bytes& list : m_free_lists)
            if (!check_free_list(list))
                return false;
        return m_free_keys_sound;
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
    bool m_free_keys_sound = true;
};

/// False for what is no regular file.
bool file_size(int fd, std::uint64_t& size)
{
    struct stat status {};
    if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode))
        return false;
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
}

/// LMDB writes both meta pages at once when it creates a store; an interrupted write leaves a part of them.
bool is_unfinished(int fd, std::uint64_t size)
{
    Meta meta{};
    return read_meta(fd, 0, meta) && meta.transaction == 0 && meta.last_page == 1 &&
           is_page_size(meta.free_list.pad) && size < 2 * std::uint64_t{meta.free_list.pad};
}

} // namespace

StoreVerdict check_store_file(int fd)
{
    std::uint64_t size = 0;
    if (!file_size(fd, size))
        return {StoreState::damaged, "no regular file"};
    if (size == 0)
        return {StoreState::empty, ""};
    if (is_unfinished(fd, size))
        return {StoreState::unfinished, ""};
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Meta meta{};
        const char* const reason = read_metas(fd, meta);
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

} // namespace orv::detail
