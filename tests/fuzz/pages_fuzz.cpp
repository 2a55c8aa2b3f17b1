// A store whose data file is damaged. There is a good one, of two trees with small, large and removed
// entries; the input is a list of changes to it: a length, a page, a place in it, and bytes, or where they
// are taken from. What is said to be sound must be one for LMDB: all of it can be read, and written to.

#include "input.h"
#include "require.h"
#include "root.h"

#include "check.h"

#include <orvbase/descriptor.h>
#include <orvstore/transaction.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

using namespace orv::store;
using orv::Error;
using orv::fuzz::Input;
using orv::fuzz::require;

namespace {

constexpr std::size_t kPageSize = 4096; ///< that places are counted by, whatever the file's is
constexpr std::size_t kMostChanges = 16;
constexpr const char* kStore = "store";

std::string g_file;
std::string g_sound; ///< its bytes

Layout layout()
{
    Layout layout{kStore, {"a", "b"}, std::size_t{1} * 1024 * 1024, false, nullptr};
    layout.when_damaged = WhenDamaged::set_aside;
    return layout;
}

void put(Environment& environment, std::size_t tree, const std::string& key, const std::string& value)
{
    Write transaction(environment);
    require(transaction.put(tree, key, value) == Error::none, "the store can be written to");
    require(transaction.commit() == Error::none, "the store can be written to");
}

void remove(Environment& environment, std::size_t tree, const std::string& key)
{
    Write transaction(environment, Write::Kind::removing);
    require(transaction.remove(tree, key) == Error::none, "the store can be written to");
    require(transaction.commit() == Error::none, "the store can be written to");
}

void make_store()
{
    constexpr int kEntries = 60; // more than a page holds
    Environment environment(layout());
    require(environment.open() == Error::none, "a store can be made");
    for (int i = 0; i < kEntries; ++i)
        put(environment, 0, "key " + std::to_string(i), std::string(100, 'v'));
    put(environment, 1, "large", std::string(2 * kPageSize, 'l'));
    put(environment, 1, "small", "s");
    put(environment, 1, "gone", std::string(3 * kPageSize, 'g'));
    remove(environment, 1, "gone");
    remove(environment, 0, "key 7");
    environment.close();
}

std::string read_file(const std::string& name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::size_t place_in(Input& input)
{
    const std::size_t page = input.byte();
    return page * kPageSize + static_cast<std::size_t>(input.number(2)) % kPageSize;
}

std::string damaged(Input& input)
{
    std::string bytes = g_sound;
    for (std::size_t i = 0; i < kMostChanges && !input.is_empty(); ++i) {
        const std::uint8_t kind = input.byte();
        const std::size_t place = place_in(input);
        if (kind == 'c') { // what a full disk leaves
            bytes.resize(std::min(bytes.size(), place));
            continue;
        }
        if (kind == 'm') { // pointers are what pages have most of: a place gets another one's eight bytes
            const std::size_t from = place_in(input);
            const std::string copied = bytes.substr(std::min(from, bytes.size()), sizeof(std::uint64_t));
            if (place + copied.size() <= bytes.size())
                bytes.replace(place, copied.size(), copied);
            continue;
        }
        const std::string_view change = input.bytes(kind % 16);
        if (place + change.size() <= bytes.size())
            bytes.replace(place, change.size(), change);
    }
    return bytes;
}

void read_all(Environment& environment)
{
    for (const std::size_t tree : {std::size_t{0}, std::size_t{1}}) {
        Read transaction(environment);
        require(transaction.error() == Error::none, "a sound store can be read");
        Cursor cursor(transaction, tree);
        std::size_t size = 0;
        for (bool found = cursor.first(); found; found = cursor.next())
            size += static_cast<std::size_t>(std::count(cursor.value().begin(), cursor.value().end(), 'v'));
        require(cursor.error() == Error::none && size < g_sound.size(), "a sound store can be read");
    }
}

/// What fails, fails: it must not crash.
void write_all(Environment& environment)
{
    for (const std::size_t tree : {std::size_t{0}, std::size_t{1}}) {
        Write transaction(environment);
        if (transaction.error() == Error::none &&
            transaction.put(tree, "new", std::string(kPageSize, 'n')) == Error::none)
            (void)transaction.commit();
    }
    Write transaction(environment, Write::Kind::removing);
    if (transaction.error() != Error::none)
        return;
    {
        Cursor cursor(transaction, 0);
        for (bool found = cursor.first(); found && cursor.remove() == Error::none; found = cursor.next()) {
        }
    }
    (void)transaction.commit();
}

StoreVerdict judge_file()
{
    const orv::base::Descriptor file(open(g_file.c_str(), O_RDONLY | O_CLOEXEC));
    return check_store_file(file.get());
}

StoreVerdict judge(const std::string& bytes)
{
    (void)unlink(g_file.c_str()); // it may have been set aside
    const orv::base::Descriptor file(open(g_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    require(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    (void)last_commit_in(file.get());
    return check_store_file(file.get());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    g_file = orv::fuzz::make_root() + "/" + kStore + "/data.mdb";
    make_store();
    g_sound = read_file(g_file);
    require(judge(g_sound).state == StoreState::sound, "a good file is sound");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const StoreVerdict verdict = judge(damaged(input));
    if (verdict.state == StoreState::damaged)
        require(*verdict.reason != '\0', "it is told what is wrong");
    if (verdict.state != StoreState::sound && size % 16 != 0) // opening takes long
        return 0;
    Environment environment(layout());
    const Error error = environment.open();
    require(error == Error::none || verdict.state == StoreState::foreign ||
                verdict.state == StoreState::sound,
            "what is damaged is set aside");
    if (error != Error::none)
        return 0;
    read_all(environment);
    write_all(environment);
    environment.close();
    require(judge_file().state == StoreState::sound, "a sound store stays sound");
    return 0;
}
