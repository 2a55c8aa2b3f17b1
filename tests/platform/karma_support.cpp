// What the tests of telemetry share: the exchange, and the disk.

#include "karma_support.h"

#include "memory_support.h"

#include <lmdb.h>
#include <unistd.h>

#include <cerrno>

namespace {

bool g_is_slow = false;
bool g_is_failing = false;
int g_commits = 0;

} // namespace

extern "C" {
int __real_mdb_txn_commit(MDB_txn* transaction);

int __wrap_mdb_txn_commit(MDB_txn* transaction)
{
    constexpr unsigned kDelayUs = 20000;
    if (!g_is_slow)
        return __real_mdb_txn_commit(transaction);
    ++g_commits;
    usleep(kDelayUs);
    if (!g_is_failing)
        return __real_mdb_txn_commit(transaction);
    mdb_txn_abort(transaction);
    return EIO;
}
}

SlowDisk::SlowDisk(bool is_failing)
{
    g_is_slow = true;
    g_is_failing = is_failing;
    g_commits = 0;
}

SlowDisk::~SlowDisk()
{
    g_is_slow = false;
}

int SlowDisk::commits()
{
    return g_commits;
}

int orvex_send_request(Orvex* orvex, const char* name, const char* data, std::size_t length,
                       void (*response_callback)(void* arg, const Message* response), void* arg)
{
    const EnoughMemory enough; // for the test's own notes
    if (orvex->result == 0)
        orvex->requests.push_back({name, std::string(data, length), response_callback, arg});
    return orvex->result;
}

orv::JsonPtr KarmaTest::event(const char* type, const char* data)
{
    const orv::JsonPtr json(json_loads(data, 0, nullptr));
    return orv::JsonPtr(orv::karma::build_karma_event_json(type, json.get()));
}

std::string KarmaTest::id_of(const orv::JsonPtr& event)
{
    return json_string_value(json_object_get(event.get(), "id"));
}

std::vector<std::string> KarmaTest::stored()
{
    std::vector<json_t*> events;
    EXPECT_EQ(orv::karma::read_events(events), 0);
    std::vector<std::string> ids;
    ids.reserve(events.size());
    for (json_t* json : events)
        ids.push_back(id_of(orv::JsonPtr(json)));
    return ids;
}
