// Everything else that the platform does: logging, the daemon framework, timers, file locks, scripts,
// versions, devices, diagnosis, telemetry.

#include "fake.h"

#include <orvbase/error_number.h>

#include <orvdiagnosis/orvdiagnosis.h>
#include <orvkarma/orvkarma.h>
#include <orvutils/daemon.h>
#include <orvutils/locking.h>
#include <orvutils/log.h>
#include <orvutils/path.h>
#include <orvutils/script.h>
#include <orvutils/time.h>
#include <orvutils/version.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

using orv::fake::Fake;

namespace {

Fake& platform()
{
    return *Fake::current();
}

std::string dump(const json_t* value)
{
    const Fake::Paused paused;
    char* text = json_dumps(value, JSON_ENCODE_ANY);
    std::string result = text ? text : "(none)";
    std::free(text);
    return result;
}

} // namespace

// ---- logging

namespace orv::log {

namespace detail {
int g_threshold = kTrace;
} // namespace detail

void print(int channel, int level, Text line)
{
    const Fake::Calm calm;
    if (!Fake::current())
        return;
    std::string text(line.data, line.size);
    const bool has_area = text.compare(0, kPrefixAreaSize, kPrefixArea) == 0;
    text.erase(0, has_area ? kPrefixAreaSize : 0);
    if (channel != kDefaultChannel)
        text.insert(0, "on channel " + std::to_string(channel) + ": ");
    platform().log(level, text);
}

bool open_channel(int channel)
{
    const Fake::Calm calm;
    return !platform().fails("log::open_channel(" + std::to_string(channel) + ")");
}

} // namespace orv::log

// ---- the daemon framework

namespace orv::daemon {

namespace {

class FakeInstance : public Instance {
public:
    int on_stop_pipe() override
    {
        const Fake::Calm calm;
        return platform().fails("Instance::on_stop_pipe()") ? -1 : platform().fd("stop");
    }

    int run() override
    {
        {
            const Fake::Calm calm;
            platform().note("Instance::run()");
        }
        return init_hook() ? run_hook() : 1;
    }
};

} // namespace

std::shared_ptr<Instance> instance(int argc, char** /*argv*/)
{
    const Fake::Calm calm;
    platform().note("daemon::instance(" + std::to_string(argc) + ")");
    return std::make_shared<FakeInstance>();
}

} // namespace orv::daemon

// ---- timers

namespace orv::time {

int timer_init(TimerType type)
{
    const Fake::Calm calm;
    Fake& fake = platform();
    if (fake.fails("timer_init(" + std::to_string(static_cast<int>(type)) + ")"))
        return -1;
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    fake.name_fd(fd, fake.next_name("timer"));
    return fd;
}

int timer_start(int fd, long first, long period, bool absolute)
{
    const Fake::Calm calm;
    Fake& fake = platform();
    const bool failing = fake.fails("timer_start(" + fake.name(fd) + ", " + std::to_string(first) + ", " +
                                    std::to_string(period) + (absolute ? ", true)" : ", false)"));
    return failing || first < 0 || period < 0 ? -1 : 0;
}

std::uint64_t timer_tick(int fd)
{
    const Fake::Calm calm;
    Fake& fake = platform();
    eventfd_t expirations = 0;
    if (fake.fails("timer_tick(" + fake.name(fd) + ")") || eventfd_read(fd, &expirations) != 0)
        return 0;
    return expirations;
}

void timer_uninit(int fd)
{
    const Fake::Calm calm;
    Fake& fake = platform();
    fake.note("timer_uninit(" + fake.name(fd) + ")");
    fake.forget_fd(fd);
    const Fake::Paused paused;
    close(fd);
}

} // namespace orv::time

// ---- locks, scripts, versions, the root directory

namespace orv::locking {

plock::plock(plock&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

plock& plock::operator=(plock&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

plock::~plock()
{
    const Fake::Calm calm;
    // The version lock outlives the test that took it: what a later one sees of it is not its own.
    if (Fake* fake = Fake::current(); fake && m_fd == fake->lock_serial)
        fake->note("plock::close()");
}

std::optional<plock> plock::make(const path& file, flags how)
{
    const Fake::Calm calm;
    const std::string name = file.str().substr(file.str().rfind('/') + 1);
    if (platform().fails("plock::make(" + name + ", " + std::to_string(static_cast<int>(how)) + ")"))
        return std::nullopt;
    return plock(platform().lock_serial);
}

result plock::lock(type which)
{
    const Fake::Calm calm;
    if (platform().fails("plock::lock(" + std::to_string(static_cast<int>(which)) + ")"))
        return result::busy;
    return result::locked;
}

} // namespace orv::locking

namespace orv {

int exec_script(const std::vector<std::vector<std::string>>& commands, const std::string& interpreter,
                int flags)
{
    const Fake::Calm calm;
    std::string text = "exec_script(" + interpreter + ", " + std::to_string(flags);
    for (const auto& command : commands) {
        text += ", [";
        for (const auto& word : command)
            text += (text.back() == '[' ? "" : " ") + word;
        text += "]";
    }
    return platform().fails(text + ")") ? -platform().error() : platform().script_result;
}

std::optional<std::string> get_release_version()
{
    const Fake::Calm calm;
    platform().note("get_release_version()");
    return platform().release_version;
}

std::string get_patch_version()
{
    const Fake::Calm calm;
    platform().note("get_patch_version()");
    return platform().patch_version;
}

path common_directory(common_path which)
{
    const Fake::Calm calm;
    return path(platform().root) / std::to_string(static_cast<int>(which));
}

} // namespace orv

// ---- devices

namespace orv::devMgmt {

namespace {

std::string joined(const std::vector<std::string>& fields)
{
    std::string text;
    for (const auto& field : fields)
        text += (text.empty() ? "" : " ") + field;
    return text;
}

} // namespace

int init()
{
    const Fake::Calm calm;
    return platform().fails("devMgmt::init()") ? -1 : 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("devMgmt::uninit()");
}

int set_on_dev_info_change(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::set_on_dev_info_change(" + joined(fields) + ")"))
        return -1;
    auto& callbacks = platform().change_callbacks;
    callbacks.push_back({fields, callback, static_cast<int>(callbacks.size()) + 1});
    return 0;
}

int unset_on_dev_info_change(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    const Fake::Calm calm;
    auto& callbacks = platform().change_callbacks;
    const auto found = std::find_if(callbacks.begin(), callbacks.end(), [&](const auto& registered) {
        return registered.callback == callback && registered.fields == fields;
    });
    const std::string which = found == callbacks.end() ? "unknown" : std::to_string(found->number);
    if (platform().fails("devMgmt::unset_on_dev_info_change(callback " + which + ")") ||
        found == callbacks.end())
        return -1;
    callbacks.erase(found);
    return 0;
}

int get_device(const std::string& id, Device& device)
{
    const Fake::Calm calm;
    const auto found = platform().devices.find(id);
    if (platform().fails("devMgmt::get_device(" + id + ")") || found == platform().devices.end())
        return 0;
    device = found->second;
    return 1;
}

int get_devices(std::vector<Device>& devices)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::get_devices()"))
        return -1;
    devices.clear();
    for (const auto& device : platform().devices)
        devices.push_back(device.second);
    return 0;
}

int get_device_id_by_mac(const sockutl::macaddr& mac, std::string& id)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::get_device_id_by_mac(" + mac.to_string(false) + ")"))
        return -1;
    for (const auto& device : platform().devices)
        if (device.second.macs.count(mac) != 0) {
            id = device.first;
            return 0;
        }
    return -1;
}

} // namespace orv::devMgmt

void Fake::change_device(orv::devMgmt::DevInfoChangeType type, const orv::devMgmt::Device& device,
                         const std::string& field)
{
    for (const auto& registered : change_callbacks)
        if (field.empty() ||
            std::find(registered.fields.begin(), registered.fields.end(), field) != registered.fields.end()) {
            const Inside inside;
            registered.callback(type, device, field);
        }
}

// ---- diagnosis

namespace orv::diagnosis {

std::vector<Record> get_defaults(const std::vector<RecordId>& filter)
{
    const Fake::Calm calm;
    std::string text;
    for (const auto& id : filter)
        text += (text.empty() ? "" : " ") + id.first + "." + id.second;
    platform().note("diagnosis::get_defaults(" + text + ")");

    std::vector<RecordId> ids = filter;
    if (ids.empty())
        ids = {{"agent", "version"}, {"network", "interfaces"}};
    std::vector<Record> records;
    records.reserve(ids.size());
    for (const auto& id : ids)
        records.push_back({id, [id] { return json_string((id.first + "." + id.second).c_str()); }});
    return records;
}

void Manager::add(std::vector<Record> records)
{
    const Fake::Calm calm;
    platform().note("diagnosis::Manager::add(" + std::to_string(records.size()) + " records)");
    for (auto& record : records)
        m_records.push_back(std::move(record));
}

namespace {

json_t* collected(const std::vector<Record>& records)
{
    json_t* all = json_object();
    for (const Record& record : records) {
        if (!json_object_get(all, record.id.first.c_str()))
            json_object_set_new(all, record.id.first.c_str(), json_object());
        json_object_set_new(json_object_get(all, record.id.first.c_str()), record.id.second.c_str(),
                            record.value());
    }
    return all;
}

} // namespace

json_t* Manager::collect() const
{
    const Fake::Calm calm;
    return platform().fails("diagnosis::Manager::collect()") ? nullptr : collected(m_records);
}

json_t* Manager::report() const
{
    const Fake::Calm calm;
    if (platform().fails("diagnosis::Manager::report()"))
        return nullptr;
    json_t* all = collected(m_records);
    json_object_set_new(all, "generated_at", json_integer(static_cast<json_int_t>(platform().now)));
    return all;
}

} // namespace orv::diagnosis

// ---- telemetry

namespace orv::karma {

int init()
{
    const Fake::Calm calm;
    return platform().fails("karma::init()") ? -1 : 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("karma::uninit()");
}

int read_events(std::vector<json_t*>& events)
{
    const Fake::Calm calm;
    if (platform().fails("karma::read_events()"))
        return -1;
    for (const auto& text : platform().outbox)
        events.push_back(json_loads(text.c_str(), 0, nullptr));
    return 0;
}

json_t* build_karma_event_json(const char* type, json_t* data)
{
    const Fake::Calm calm;
    if (platform().fails("karma::build_karma_event_json(" + std::string(type) + ", " + dump(data) + ")"))
        return nullptr;
    return json_pack("{s:s,s:O}", "type", type, "data", data);
}

int submit_karma_event(json_t* event, Orvex* orvex)
{
    const Fake::Calm calm;
    const bool failing = platform().fails("karma::submit_karma_event(" + dump(event) + ")");
    return failing || !orvex ? -1 : 0;
}

} // namespace orv::karma
