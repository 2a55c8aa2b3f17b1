// The libraries that keep something in a store, when the database fails: each call of it, one at a time and from then
// on. What was to be done is done or is not, and the next attempt succeeds.

#include "devmgmt_support.h"
#include "store_support.h"

#include <orvkarma/outbox.h>
#include <orvstore/notify.h>
#include <orvutils/error.h>
#include <orvutils/log_control.h>
#include <orvutils/settings_backup.h>

#include <lmdb.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

unsigned g_calls = 0;
unsigned g_failing = 0; ///< which call fails, from 1; 0: none
bool g_from_then_on = false;
int g_code = 0;
bool g_has_failed = false;
std::string g_failed_call; ///< the first one

/// While one of these lives, a call of the database fails, and with `from_then_on` all after it.
class FailingDatabase {
public:
    FailingDatabase(unsigned number, int code, bool from_then_on)
    {
        g_calls = 0;
        g_failing = number;
        g_code = code;
        g_from_then_on = from_then_on;
        g_has_failed = false;
    }
    FailingDatabase(const FailingDatabase&) = delete;
    FailingDatabase& operator=(const FailingDatabase&) = delete;
    ~FailingDatabase() { g_failing = 0; }
};

bool is_failing(const char* call)
{
    if (g_failing == 0)
        return false;
    ++g_calls;
    const bool fails = g_from_then_on ? g_calls >= g_failing : g_calls == g_failing;
    if (fails && !g_has_failed)
        g_failed_call = call;
    g_has_failed = g_has_failed || fails;
    return fails;
}

} // namespace

#define FAILING(name, parameters, arguments)                                                                 \
    int __real_##name parameters;                                                                            \
    int __wrap_##name parameters                                                                             \
    {                                                                                                        \
        return is_failing(#name) ? g_code : __real_##name arguments;                                         \
    }

extern "C" {
FAILING(mdb_txn_begin, (MDB_env * env, MDB_txn* parent, unsigned flags, MDB_txn** made),
        (env, parent, flags, made))
FAILING(mdb_txn_renew, (MDB_txn * transaction), (transaction))
FAILING(mdb_get, (MDB_txn * txn, MDB_dbi tree, MDB_val* key, MDB_val* value), (txn, tree, key, value))
FAILING(mdb_put, (MDB_txn * txn, MDB_dbi tree, MDB_val* key, MDB_val* value, unsigned flags),
        (txn, tree, key, value, flags))
FAILING(mdb_del, (MDB_txn * txn, MDB_dbi tree, MDB_val* key, MDB_val* value), (txn, tree, key, value))
FAILING(mdb_cursor_open, (MDB_txn * txn, MDB_dbi tree, MDB_cursor** made), (txn, tree, made))
FAILING(mdb_cursor_get, (MDB_cursor * cursor, MDB_val* key, MDB_val* value, MDB_cursor_op operation),
        (cursor, key, value, operation))
FAILING(mdb_cursor_del, (MDB_cursor * cursor, unsigned flags), (cursor, flags))
FAILING(mdb_stat, (MDB_txn * txn, MDB_dbi tree, MDB_stat* status), (txn, tree, status))
FAILING(mdb_env_info, (MDB_env * env, MDB_envinfo* info), (env, info))
FAILING(mdb_env_create, (MDB_env * *env), (env))
FAILING(mdb_env_set_maxdbs, (MDB_env * env, MDB_dbi count), (env, count))
FAILING(mdb_env_open, (MDB_env * env, const char* path, unsigned flags, mdb_mode_t mode),
        (env, path, flags, mode))
FAILING(mdb_env_get_fd, (MDB_env * env, mdb_filehandle_t* fd), (env, fd))
FAILING(mdb_env_stat, (MDB_env * env, MDB_stat* status), (env, status))
FAILING(mdb_env_sync, (MDB_env * env, int force), (env, force))
FAILING(mdb_dbi_open, (MDB_txn * txn, const char* name, unsigned flags, MDB_dbi* tree),
        (txn, name, flags, tree))
FAILING(mdb_env_set_mapsize, (MDB_env * env, std::size_t size), (env, size))

// Waiting for the disk is no part of this.
int __wrap_fdatasync(int)
{
    return 0;
}
int __wrap_fsync(int)
{
    return 0;
}

int __real_mdb_txn_commit(MDB_txn* transaction);
int __wrap_mdb_txn_commit(MDB_txn* transaction)
{
    if (!is_failing("mdb_txn_commit"))
        return __real_mdb_txn_commit(transaction);
    mdb_txn_abort(transaction);
    return g_code;
}
}

namespace {

using namespace orv;

/// Something to do, in stores that are as prepare() leaves them.
struct Deed {
    const char* name;
    std::function<void()> prepare;
    std::function<bool()> act;            ///< whether it succeeded
    std::function<std::string()> outcome; ///< what can be seen afterwards
};

void PrintTo(const Deed& deed, std::ostream* out)
{
    *out << deed.name;
}

/// Where reading is what is done, what was read.
std::string g_read;

std::string all_settings()
{
    std::string text;
    std::string below_tmp;
    if (setMgmt::backup(text) != 0)
        return "no backup";
    std::vector<std::string> names;
    if (setMgmt::enumSubkeys("/tmp", names) < 0)
        return "no names";
    for (const std::string& name : names)
        below_tmp += name + "=" + value_of("/tmp/" + name) + " ";
    return text + below_tmp;
}

std::string all_devices()
{
    std::string all;
    for (const std::string& id : all_ids())
        all += stored(id);
    return all;
}

std::string outbox_text()
{
    std::vector<karma::outbox::Entry> entries;
    if (karma::outbox::read(entries) != Error::none)
        return "cannot be read";
    std::string all;
    for (const karma::outbox::Entry& entry : entries)
        all += entry.id + "=" + entry.text + " ";
    return all;
}

std::string what_was_read()
{
    return g_read;
}

void put_two_devices()
{
    std::string refused;
    ASSERT_EQ(devMgmt::put_devices({make_device("d1"), make_device("d2")}, devMgmt::Others::go, refused), 0);
}

void put_settings()
{
    ASSERT_EQ(setMgmt::restore("orvane settings 1\n"
                               "6 1\n/a/b/cx\n"
                               "4 1\n/a/dy\n"
                               "end 2\n"),
              0);
    ASSERT_EQ(setMgmt::setKey("/tmp/v", "z"), 0);
    (void)setMgmt::deleteKey("/tmp/w"); // it need not be there
}

void fill_outbox()
{
    ASSERT_EQ(karma::outbox::clear(), Error::none);
    for (const char* id : {"1", "2", "3"})
        ASSERT_EQ(karma::outbox::put(id, "an event"), Error::none);
}

const std::vector<Deed> kDeeds = {
    {"write a setting", put_settings, [] { return setMgmt::setKey("/a/b/c", "new") == 0; }, all_settings},
    {"write a setting below /tmp", put_settings, [] { return setMgmt::setKey("/tmp/w", "new") == 0; },
     all_settings},
    {"remove settings", put_settings, [] { return setMgmt::deleteKey("/a") == 0; }, all_settings},
    {"read a setting", put_settings, [] { return setMgmt::getKey("/a/b/c", g_read) == 1; }, what_was_read},
    {"list settings", put_settings,
     [] {
         std::vector<std::string> names;
         if (setMgmt::enumSubkeys("/a", names) != 2)
             return false;
         g_read = names[0] + names[1];
         return true;
     },
     what_was_read},
    {"write many settings", put_settings,
     [] {
         setMgmt::Batch batch;
         return setMgmt::setKey("/a/b/c", "new") == 0 && setMgmt::deleteKey("/a/d") == 0 &&
                setMgmt::setKey("/e", "new") == 0 && batch.commit() == 0;
     },
     all_settings},
    {"back the settings up", put_settings, [] { return setMgmt::backup(g_read) == 0; }, what_was_read},
    {"restore the settings", put_settings,
     [] { return setMgmt::restore("orvane settings 1\n6 1\n/a/b/cx\n2 1\n/ey\nend 2\n") == 0; },
     all_settings},
    {"change a device", put_two_devices,
     [] {
         devMgmt::Device device = make_device("d1");
         device.display_name = "another name";
         return devMgmt::put_device(device) == 0;
     },
     all_devices},
    {"add a device", put_two_devices, [] { return devMgmt::put_device(make_device("d3")) == 0; },
     all_devices},
    {"remove a device", put_two_devices, [] { return devMgmt::remove_device("d1") == 0; }, all_devices},
    {"store all devices", put_two_devices,
     [] {
         std::string refused;
         return devMgmt::put_devices({make_device("d2"), make_device("d3")}, devMgmt::Others::go, refused) ==
                0;
     },
     all_devices},
    {"read a device", put_two_devices,
     [] {
         devMgmt::Device device;
         if (devMgmt::get_device("d1", device) == 0)
             return false;
         g_read = text_of(device);
         return true;
     },
     what_was_read},
    {"read all devices", put_two_devices,
     [] {
         std::vector<devMgmt::Device> devices;
         if (devMgmt::get_devices(devices) != 0)
             return false;
         g_read = std::to_string(devices.size());
         return true;
     },
     what_was_read},
    {"find a device by its address", put_two_devices,
     [] { return devMgmt::get_device_id_by_mac(make_device("d2").macs.begin()->first, g_read) == 0; },
     what_was_read},
    {"keep an event", fill_outbox, [] { return karma::outbox::put("4", "another") == Error::none; },
     outbox_text},
    {"remove events", fill_outbox,
     [] {
         return karma::outbox::remove({"1", "3", "5"}) == Error::none;
     },
     outbox_text},
    {"remove all events", fill_outbox, [] { return karma::outbox::clear() == Error::none; }, outbox_text},
    {"read the last event", fill_outbox, [] { return karma::outbox::last_id(g_read) == Error::none; },
     what_was_read},
    {"read all events", fill_outbox,
     [] {
         g_read = outbox_text();
         return g_read != "cannot be read";
     },
     [] { return g_read == "cannot be read" ? "" : g_read; }},
    {"measure the outbox", fill_outbox,
     [] {
         store::Usage usage;
         if (karma::outbox::measure(usage) != Error::none)
             return false;
         g_read = "measured";
         return true;
     },
     what_was_read},
};

/// The keys whose watch has told of a change.
std::set<std::string> g_told;

std::set<std::string> take_told()
{
    EXPECT_GE(store::notify::descriptor(), 0);
    store::notify::read();
    return std::exchange(g_told, {});
}

/// What a failing call is called in the log.
const std::map<std::string, std::string> kDoing = {
    {"mdb_cursor_del", "remove"},
    {"mdb_cursor_get", "move a cursor"},
    {"mdb_cursor_open", "open a cursor"},
    {"mdb_del", "remove"},
    {"mdb_env_info", "begin to write"},
    {"mdb_env_set_mapsize", "begin to write"},
    {"mdb_get", "read"},
    {"mdb_put", "write"},
    {"mdb_stat", "count entries"},
    {"mdb_txn_begin", "begin to write"},
    {"mdb_txn_commit", "commit"},
    {"mdb_txn_renew", "begin to read"},
};

std::size_t count_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class StoreFaults : public testing::TestWithParam<Deed> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(setMgmt::init(), 0);
        for (const char* key : {"/a", "/a/b", "/a/b/c", "/a/d", "/e", "/tmp/v", "/tmp/w"})
            m_watches.emplace_back(
                key,
                [](const orv::path& changed, void*) {
                    g_told.insert(changed);
                    return true;
                },
                /*notify_now=*/false, nullptr, /*keep=*/false);
        ASSERT_EQ(devMgmt::init(), 0);
        ASSERT_EQ(karma::outbox::open(), Error::none);
    }
    void TearDown() override
    {
        m_watches.clear();
        karma::outbox::close();
        devMgmt::uninit();
        setMgmt::uninit();
    }

    /// Does it with the database failing at this call. Whether there was such a call.
    void attempt(const Deed& deed, const std::string& wanted, unsigned number, int code, bool from_then_on)
    {
        SCOPED_TRACE(deed.name + std::string(": call ") + std::to_string(number) + " fails with " +
                     mdb_strerror(code) + (from_then_on ? ", and all after it" : ""));
        begin(deed);
        const std::string before = deed.outcome();
        bool done = false;
        log::begin_anew();
        testing::internal::CaptureStderr();
        {
            const FailingDatabase failing(number, code, from_then_on);
            done = deed.act();
        }
        const std::vector<std::string> lines = logged(testing::internal::GetCapturedStderr());
        const bool has_failed = g_has_failed;
        EXPECT_TRUE(done || has_failed);
        if (!done && code == EIO && !from_then_on) {
            const auto known = kDoing.find(g_failed_call);
            ASSERT_NE(known, kDoing.end()) << g_failed_call;
            ASSERT_EQ(lines.size(), 1U) << g_failed_call;
            EXPECT_EQ(lines[0].find("0 store "), 0U) << lines[0];
            EXPECT_EQ(lines[0].substr(lines[0].find(": ")),
                      ": cannot " + known->second + ": " + std::strerror(EIO));
        }
        EXPECT_EQ(deed.outcome(), done ? wanted : before);
        const std::set<std::string> told = take_told();
        if (done) { // else a watch may tell too much: it cannot know
            EXPECT_TRUE(std::includes(told.begin(), told.end(), m_wanted_told.begin(), m_wanted_told.end()));
        }
        begin(deed);
        EXPECT_TRUE(deed.act()) << "afterwards";
        EXPECT_EQ(deed.outcome(), wanted) << "afterwards";
        m_is_there_more = has_failed;
    }

    static void begin(const Deed& deed)
    {
        deed.prepare();
        g_read.clear();
        (void)take_told();
    }

    TemporaryRoot m_root;
    std::list<setMgmt::MonitoredKey> m_watches;
    std::set<std::string> m_wanted_told;
    bool m_is_there_more = false; ///< calls that can fail
};

} // namespace

TEST_P(StoreFaults, A_failing_call_fails_what_is_done_whole_and_the_next_attempt_succeeds)
{
    const Deed& deed = GetParam();
    begin(deed);
    ASSERT_TRUE(deed.act());
    const std::string wanted = deed.outcome();
    m_wanted_told = take_told();
    // After some codes the store is opened anew; while that fails, too, it is tried only now and then.
    for (const auto& [code, from_then_on] :
         {std::pair(EIO, false), std::pair(EIO, true), std::pair(MDB_MAP_FULL, false),
          std::pair(MDB_BAD_RSLOT, false)}) {
        unsigned number = 0;
        do
            attempt(deed, wanted, ++number, code, from_then_on);
        while (m_is_there_more && !HasFailure());
        EXPECT_GT(number, 1U);
    }
}

TEST(StoreFaultsAtTheStart, AreToldInALineEachAndLeaveNothingAndTheNextStartSucceeds)
{
    std::set<std::string> told;
    for (const bool is_new : {true, false}) {
        bool has_failed = true;
        for (unsigned number = 1; has_failed; ++number) {
            const TemporaryRoot root;
            if (!is_new) {
                ASSERT_EQ(setMgmt::init(), 0);
                ASSERT_EQ(setMgmt::setKey("/a", "x"), 0);
                ASSERT_EQ(setMgmt::setKey("/tmp/a", "x"), 0);
                setMgmt::uninit();
            }
            const auto descriptors = count_descriptors();
            int started = 0;
            log::begin_anew();
            testing::internal::CaptureStderr();
            {
                const FailingDatabase failing(number, EIO, /*from_then_on=*/false);
                started = setMgmt::init();
                has_failed = g_has_failed;
            }
            const std::vector<std::string> lines = logged(testing::internal::GetCapturedStderr());
            told.insert(lines.begin(), lines.end());
            EXPECT_EQ(lines.size(), started == 0 ? 0U : 1U) << g_failed_call;
            EXPECT_TRUE(started == 0 || has_failed);
            if (started != 0) {
                EXPECT_EQ(orv::_get_orverrno(), 2);
                EXPECT_EQ(count_descriptors(), descriptors) << g_failed_call;
            }
            ASSERT_EQ(setMgmt::init(), 0);
            EXPECT_EQ(value_of("/a"), is_new ? "error 4" : "x");
            EXPECT_EQ(value_of("/tmp/a"), is_new ? "error 4" : "x");
            EXPECT_EQ(setMgmt::setKey("/a", "y"), 0);
            setMgmt::uninit();
        }
    }
    const std::string error = std::string(": ") + std::strerror(EIO);
    EXPECT_EQ(told, (std::set<std::string>{"0 store tmp/settings: cannot open the store" + error,
                                           "0 store tmp/settings: cannot open the trees" + error,
                                           "0 store var/settings: cannot open the store" + error,
                                           "0 store var/settings: cannot open the trees" + error,
                                           "0 store var/settings: cannot sync the data file" + error}));
}

TEST(StoreFaultsOfAWatch, LoseNoChange)
{
    const TemporaryRoot root;
    ASSERT_EQ(setMgmt::init(), 0);
    std::list<setMgmt::MonitoredKey> watches;
    for (const char* key : {"/a", "/tmp/a"})
        watches.emplace_back(
            key,
            [](const orv::path& changed, void*) {
                g_told.insert(changed);
                return true;
            },
            /*notify_now=*/false, nullptr, /*keep=*/false);
    testing::internal::CaptureStderr();
    for (const bool is_removed : {false, true}) {
        bool has_failed = true;
        unsigned number = 1;
        for (; has_failed; ++number) {
            for (const char* key : {"/a", "/tmp/a"})
                (void)setMgmt::deleteKey(key); // it need not be there
            (void)take_told();
            for (const char* key : {"/a", "/tmp/a"}) {
                EXPECT_EQ(setMgmt::setKey(key, "x"), 0);
                EXPECT_EQ(is_removed ? setMgmt::deleteKey(key) : 0, 0);
            }
            {
                const FailingDatabase failing(number, EIO, /*from_then_on=*/false);
                store::notify::read();
                has_failed = g_has_failed;
            }
            // Those that were not told the first time are the second time.
            EXPECT_EQ(take_told(), (std::set<std::string>{"/a", "/tmp/a"})) << number << is_removed;
        }
        EXPECT_GT(number, 10U);
    }
    (void)testing::internal::GetCapturedStderr();
    watches.clear();
    setMgmt::uninit();
}

TEST(StoreFaultsOfABatch, FailAllThatComesAfterThem)
{
    const TemporaryRoot root;
    ASSERT_EQ(setMgmt::init(), 0);
    ASSERT_EQ(setMgmt::setKey("/a", "x"), 0);
    testing::internal::CaptureStderr();
    {
        setMgmt::Batch batch;
        EXPECT_EQ(setMgmt::setKey("/a", "y"), 0);
        for (unsigned number = 1; number < 20; ++number) {
            const FailingDatabase failing(number, EIO, /*from_then_on=*/false);
            if (setMgmt::deleteKey("/a") != 0)
                break;
            EXPECT_EQ(setMgmt::setKey("/a", "y"), 0);
        }
        EXPECT_EQ(setMgmt::setKey("/b", "z"), -2);
        EXPECT_EQ(batch.commit(), -2);
    }
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(value_of("/a"), "x");
    EXPECT_EQ(value_of("/b"), "error 4");
    setMgmt::uninit();
}

INSTANTIATE_TEST_SUITE_P(Deeds, StoreFaults, testing::ValuesIn(kDeeds), [](const auto& deed) {
    std::string name = deed.param.name;
    for (char& letter : name)
        letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    return name;
});
