// Parsing JSON without surprises when memory is short.
//
// The JSON library does not notice every failed allocation: while parsing, a token that cannot grow is
// written to behind its end. So while it parses, its memory comes from an arena, and when that cannot grow the
// parser is left by longjmp(), over nothing but its own frames, and the arena is given back as a whole.
//
// An arena lives until the last of its blocks is freed. Freeing finds out by address whether a block is an
// arena's, so there should never be more than a few: whoever parses many texts has them share one. The first
// is always there, and has room for an ordinary request. Further pieces double in size, so that a large value
// has few, and large ones go back to the system at once.

#include <orvutils/json.h>

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace orv {

namespace {

constexpr std::size_t kFirstPiece = 4096;                    ///< bytes, part of the arena itself
constexpr std::size_t kLargestPiece = std::size_t{4} << 20U; ///< bytes
constexpr std::size_t kAlignment = alignof(std::max_align_t);

json_malloc_t g_malloc = nullptr; ///< whose place the functions below have taken
json_free_t g_free = nullptr;

struct Piece {
    Piece* next;
    std::size_t size; ///< bytes behind this header
};
constexpr std::size_t kHeader = (sizeof(Piece) + kAlignment - 1) / kAlignment * kAlignment;

class Arena {
public:
    /// Null when it cannot grow.
    void* allocate(std::size_t size)
    {
        if (size > SIZE_MAX / 2)
            return nullptr;
        size = (size + kAlignment - 1) / kAlignment * kAlignment;
        if (size > m_left && !grow(size))
            return nullptr;
        char* block = m_end - m_left;
        m_left -= size;
        ++m_blocks;
        return block;
    }

    [[nodiscard]] bool owns(const void* block) const
    {
        if (is_within(block, m_first, sizeof m_first))
            return true;
        for (const Piece* piece = m_pieces; piece; piece = piece->next)
            if (is_within(block, piece, kHeader + piece->size))
                return true;
        return false;
    }

    /// True when it was the last block.
    bool drop_block() { return --m_blocks == 0; }
    [[nodiscard]] std::size_t blocks() const { return m_blocks; }
    /// Forgets the blocks beyond so many: nobody knows of them any more.
    void forget_blocks(std::size_t kept) { m_blocks = kept; }

    /// As new: all blocks are gone.
    void reset()
    {
        while (Piece* piece = m_pieces) {
            m_pieces = piece->next;
            g_free(piece);
        }
        m_end = m_first + sizeof m_first;
        m_left = sizeof m_first;
        m_blocks = 0;
    }

    std::jmp_buf no_memory;
    Arena* next = nullptr;

private:
    static bool is_within(const void* block, const void* begin, std::size_t size)
    {
        return reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(begin) < size;
    }

    bool grow(std::size_t wanted)
    {
        const std::size_t usual = m_pieces ? std::min(2 * m_pieces->size, kLargestPiece) : 2 * kFirstPiece;
        const std::size_t size = std::max(usual, wanted);
        void* memory = g_malloc(kHeader + size);
        if (!memory)
            return false;
        m_pieces = new (memory) Piece{m_pieces, size};
        m_end = static_cast<char*>(memory) + kHeader + size;
        m_left = size;
        return true;
    }

    Piece* m_pieces = nullptr;              ///< newest first
    char* m_end = m_first + sizeof m_first; ///< of the newest piece
    std::size_t m_left = sizeof m_first;    ///< bytes free before that
    std::size_t m_blocks = 0;               ///< in use
    alignas(kAlignment) char m_first[kFirstPiece];
};

static_assert(std::is_trivially_destructible_v<Arena>);
Arena g_first;             ///< used again and again; in the list below while it is in use
Arena* g_arenas = nullptr; ///< all that have blocks in use
bool g_first_in_use = false;
Arena* g_parsing = nullptr; ///< where the parser's memory comes from now

/// Null without memory.
Arena* create_arena()
{
    Arena* arena = &g_first;
    if (std::exchange(g_first_in_use, true)) {
        void* memory = g_malloc(sizeof(Arena));
        if (!memory)
            return nullptr;
        arena = new (memory) Arena;
    }
    arena->next = g_arenas;
    g_arenas = arena;
    return arena;
}

void destroy(Arena* arena)
{
    Arena** link = &g_arenas;
    while (*link != arena)
        link = &(*link)->next;
    *link = arena->next;
    arena->reset();
    if (arena == &g_first)
        g_first_in_use = false;
    else
        g_free(arena);
}

/// Null when it is none's.
Arena* owner_of(const void* block)
{
    Arena* arena = g_arenas;
    while (arena && !arena->owns(block))
        arena = arena->next;
    return arena;
}

void* allocate(std::size_t size)
{
    if (!g_parsing)
        return g_malloc(size);
    void* block = g_parsing->allocate(size);
    if (!block)
        std::longjmp(g_parsing->no_memory, 1);
    return block;
}

void release(void* block)
{
    if (!block)
        return;
    Arena* arena = owner_of(block);
    if (!arena)
        g_free(block);
    else if (arena->drop_block() && arena != g_parsing)
        destroy(arena);
}

/// Whoever has set functions of his own since the last time gets the calls that are none of an arena's.
void take_over_memory()
{
    json_malloc_t current_malloc = nullptr;
    json_free_t current_free = nullptr;
    json_get_alloc_funcs(&current_malloc, &current_free);
    if (current_malloc == allocate)
        return;
    g_malloc = current_malloc;
    g_free = current_free;
    json_set_alloc_funcs(allocate, release);
}

/// The only frames between the two ends of the jump are the JSON library's: nothing has to be destroyed.
json_t* parse_in(Arena& arena, const char* text, std::size_t size, bool& lacks_memory)
{
    if (setjmp(arena.no_memory) != 0) { // NOLINT(cert-err52-cpp): see above
        lacks_memory = true;
        return nullptr;
    }
    return json_loadb(text, size, /*flags=*/0, /*error=*/nullptr);
}

} // namespace

JsonPtr parse_json(std::string_view text, bool* lacks_memory, const json_t* beside)
{
    bool ignored = false;
    bool& lacks = lacks_memory ? *lacks_memory : ignored;
    take_over_memory();
    Arena* arena = beside ? owner_of(beside) : nullptr;
    if (!arena)
        arena = create_arena();
    lacks = !arena;
    if (!arena)
        return nullptr;
    const std::size_t before = arena->blocks();
    g_parsing = arena;
    JsonPtr value(parse_in(*arena, text.data(), text.size(), lacks));
    g_parsing = nullptr;
    if (!value)
        arena->forget_blocks(before);
    if (arena->blocks() == 0)
        destroy(arena);
    return value;
}

} // namespace orv
