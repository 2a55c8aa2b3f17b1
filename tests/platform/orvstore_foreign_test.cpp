// Data files of another kind of machine, or of another version of LMDB: refused by name, and left as they
// are.

#include "check.h"
#include "orvstore_support.h"
#include "process_support.h"

#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

using namespace orv::store;
using orv::Error;
namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;
using OwnWord = std::conditional_t<sizeof(std::size_t) == 8, std::uint64_t, std::uint32_t>;
using OtherWord = std::conditional_t<sizeof(std::size_t) == 8, std::uint32_t, std::uint64_t>;

constexpr std::size_t kMapSize = std::size_t{1024} * 1024;
constexpr std::size_t kPageSize = 4096;
const std::string kOtherWordSize = sizeof(std::size_t) == 8
                                       ? "it was written by a 32-bit program, and this is a 64-bit one"
                                       : "it was written by a 64-bit program, and this is a 32-bit one";
const std::string kOtherByteOrder = "it was written by a machine of the other byte order";
const std::string kOtherVersion = "it is of another version of LMDB's data format";

Lines& told()
{
    static Lines lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

/// What LMDB 0.9 writes where pointers have the size of a word: a store whose tree "a" has one entry. Numbers
/// can be written in the machine's byte order or in the other one.
template <typename Word>
class StoreFile {
public:
    explicit StoreFile(bool is_swapped = false, std::uint32_t version = 1)
        : m_is_swapped(is_swapped), m_bytes(4 * kPageSize, '\0')
    {
        put_meta(0, version, {});
        std::string tree;
        append_tree(tree, {0, 0, 1, 0, 1, 0, 1, 3});
        put_leaf(2, "a", tree, /*node_flags=*/2);
        put_leaf(3, "key", "value", /*node_flags=*/0);
        put_meta(1, version, {0, 0, 1, 0, 1, 0, 1, 2});
    }

    [[nodiscard]] const std::string& bytes() const { return m_bytes; }

private:
    struct Tree {
        std::uint32_t pad = 0;
        std::uint16_t flags = 0, depth = 0;
        Word branch_pages = 0, leaf_pages = 0, overflow_pages = 0, entries = 0,
             root = static_cast<Word>(~Word{0});
    };

    template <typename Number>
    void append(std::string& bytes, Number number) const
    {
        std::string own(sizeof number, '\0');
        std::memcpy(own.data(), &number, sizeof number);
        if (m_is_swapped)
            std::reverse(own.begin(), own.end());
        bytes += own;
    }

    void append_header(std::string& bytes, Word page, std::uint16_t flags, std::uint16_t lower,
                       std::uint16_t upper) const
    {
        append(bytes, page);
        for (const std::uint16_t number : {std::uint16_t{0}, flags, lower, upper})
            append(bytes, number);
    }

    void append_tree(std::string& bytes, const Tree& tree) const
    {
        append(bytes, tree.pad);
        append(bytes, tree.flags);
        append(bytes, tree.depth);
        for (const Word number :
             {tree.branch_pages, tree.leaf_pages, tree.overflow_pages, tree.entries, tree.root})
            append(bytes, number);
    }

    /// Page 0 is of the commit before the first one, page 1 of the first one.
    void put_meta(Word page, std::uint32_t version, const Tree& main)
    {
        std::string bytes;
        append_header(bytes, page, /*flags=*/8, 0, 0);
        append(bytes, std::uint32_t{0xBEEFC0DE});
        append(bytes, version);
        append(bytes, Word{0}); // where to map it
        append(bytes, static_cast<Word>(kMapSize));
        Tree free_list;
        free_list.pad = kPageSize;
        free_list.flags = 8;
        append_tree(bytes, free_list);
        append_tree(bytes, main);
        append(bytes, static_cast<Word>(page == 0 ? 1 : 3)); // the last page
        append(bytes, page);                                 // the commit
        put(page, 0, bytes);
    }

    void put_leaf(Word page, std::string_view key, std::string_view value, std::uint16_t node_flags)
    {
        std::string node;
        append(node, static_cast<std::uint16_t>(value.size()));
        append(node, std::uint16_t{0});
        append(node, node_flags);
        append(node, static_cast<std::uint16_t>(key.size()));
        node.append(key).append(value);
        node.resize(node.size() + node.size() % 2);
        const auto at = static_cast<std::uint16_t>(kPageSize - node.size());
        std::string bytes;
        append_header(bytes, page, /*flags=*/2, sizeof(Word) + 8 + 2, at);
        append(bytes, at);
        put(page, 0, bytes);
        put(page, at, node);
    }

    void put(Word page, std::size_t offset, const std::string& bytes)
    {
        m_bytes.replace(static_cast<std::size_t>(page) * kPageSize + offset, bytes.size(), bytes);
    }

    bool m_is_swapped;
    std::string m_bytes;
};

class ForeignTest : public testing::Test {
protected:
    void SetUp() override
    {
        told().clear();
        fs::create_directory(directory());
    }

    [[nodiscard]] std::string directory() const { return m_root.path() + "/store"; }
    [[nodiscard]] std::string data_file() const { return directory() + "/data.mdb"; }

    static Layout layout(WhenDamaged when_damaged = WhenDamaged::refuse, bool synced = true)
    {
        Layout layout{"store", {"a"}, kMapSize, synced, tell};
        layout.when_damaged = when_damaged;
        return layout;
    }

    /// The names in the store's directory but for those of locks and of the boot.
    [[nodiscard]] std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory()))
            if (const std::string name = entry.path().filename(); name.rfind("data.mdb", 0) == 0)
                names.push_back(name);
        std::sort(names.begin(), names.end());
        return names;
    }

    void expect_refused(const Layout& layout, const std::string& reason) const
    {
        told().clear();
        const std::string before = slurp(data_file());
        const Lines files_before = files();
        Environment environment(layout);
        EXPECT_EQ(environment.open(), Error::input_output);
        EXPECT_EQ(told(), Lines{"0 store store: cannot use the data file: " + reason});
        EXPECT_EQ(environment.failure().kind, Failure::Kind::data_file);
        EXPECT_EQ(environment.failure().path, data_file());
        EXPECT_EQ(environment.failure().reason, reason);
        EXPECT_EQ(slurp(data_file()), before);
        EXPECT_EQ(files(), files_before);
    }

    TemporaryRoot m_root;
};

} // namespace

TEST_F(ForeignTest, What_is_written_here_by_hand_is_a_store_to_LMDB)
{
    spill(data_file(), StoreFile<OwnWord>().bytes());
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "value");
    EXPECT_EQ(write(environment, "key", "new"), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "new");
    EXPECT_EQ(told(), Lines{});
}

TEST_F(ForeignTest, A_store_of_another_kind_is_refused_with_one_line_and_left_as_it_is_whatever_it_is_worth)
{
    const struct {
        std::string bytes, reason;
    } cases[] = {
        {StoreFile<OtherWord>().bytes(), kOtherWordSize},
        {StoreFile<OwnWord>(/*is_swapped=*/true).bytes(), kOtherByteOrder},
        {StoreFile<OtherWord>(/*is_swapped=*/true).bytes(), kOtherByteOrder},
        {StoreFile<OwnWord>(/*is_swapped=*/false, /*version=*/2).bytes(), kOtherVersion},
        {StoreFile<OwnWord>(/*is_swapped=*/false, /*version=*/999).bytes(), kOtherVersion},
    };
    for (const auto& one : cases)
        for (const WhenDamaged when_damaged :
             {WhenDamaged::refuse, WhenDamaged::set_aside, WhenDamaged::restore}) {
            spill(data_file(), one.bytes);
            spill(data_file() + ".copy", StoreFile<OwnWord>().bytes());
            expect_refused(layout(when_damaged), one.reason);
        }
}

TEST_F(ForeignTest, A_version_that_cannot_be_is_damage)
{
    for (const std::uint32_t version : {0U, 17U, 0x54U, 998U, 0xffffffffU}) {
        spill(data_file(), StoreFile<OwnWord>(/*is_swapped=*/false, version).bytes());
        told().clear();
        Environment environment(layout(WhenDamaged::refuse));
        EXPECT_EQ(environment.open(), Error::input_output);
        EXPECT_EQ(environment.failure().kind, Failure::Kind::damage) << version;
    }
}

TEST_F(ForeignTest, A_volatile_store_of_this_boot_is_refused_likewise)
{
    spill(directory() + "/boot_id", slurp("/proc/sys/kernel/random/boot_id"));
    spill(data_file(), StoreFile<OtherWord>().bytes());
    expect_refused(layout(WhenDamaged::refuse, /*synced=*/false), kOtherWordSize);
}

TEST_F(ForeignTest, A_volatile_store_of_an_earlier_boot_is_created_anew)
{
    spill(directory() + "/boot_id", "another\n");
    spill(data_file(), StoreFile<OtherWord>().bytes());
    Environment environment(layout(WhenDamaged::refuse, /*synced=*/false));
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "absent");
    EXPECT_EQ(told(), Lines{});
}

TEST_F(ForeignTest, One_that_its_own_kind_of_program_has_open_is_refused_and_its_lock_file_not_touched)
{
    spill(data_file(), StoreFile<OtherWord>().bytes());
    const Fd user(open(data_file().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(user, LOCK_SH), 0); // as whoever has the store open does
    spill(directory() + "/lock.mdb", "theirs");
    expect_refused(layout(WhenDamaged::set_aside), kOtherWordSize);
    EXPECT_EQ(slurp(directory() + "/lock.mdb"), "theirs");
}

TEST_F(ForeignTest, A_copy_of_another_kind_does_not_take_a_damaged_files_place)
{
    spill(data_file(), "garbage");
    spill(data_file() + ".copy", StoreFile<OtherWord>().bytes());
    Environment environment(layout(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::input_output);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::damage);
    EXPECT_EQ(slurp(data_file()), "garbage");
}

TEST_F(ForeignTest, Brought_in_under_a_running_program_it_fails_the_writes_until_it_is_gone)
{
    Environment environment(layout(WhenDamaged::set_aside));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "own"), Error::none);
    fs::rename(data_file(), directory() + "/kept");
    spill(data_file(), StoreFile<OtherWord>().bytes());
    EXPECT_EQ(write(environment, "key", "new"), Error::input_output);
    EXPECT_EQ(value_in(environment, "key"), "unreadable");
    EXPECT_EQ(told(), Lines{"0 store store: cannot use the data file: " + kOtherWordSize});
    fs::rename(directory() + "/kept", data_file());
    EXPECT_EQ(write(environment, "other", "new"), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "own");
    EXPECT_EQ(told().back(), "2 store store: is back");
}

TEST_F(ForeignTest, Whoever_only_asks_for_a_files_last_commit_gets_none_of_another_kinds)
{
    spill(data_file(), StoreFile<OtherWord>().bytes());
    const Fd file(open(data_file().c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(last_commit_in(file), 0U);
    EXPECT_FALSE(set_last_commit(file, 7));
    EXPECT_EQ(slurp(data_file()), StoreFile<OtherWord>().bytes());
}
