// Everything else that the platform does: logging, the daemon framework, timers, file locks, scripts,
// versions, devices, diagnosis, telemetry.

#include "fake.h"

#include <orvbase/error_number.h>

#include <orvdiagnosis/orvdiagnosis.h>
#include <orvkarma/orvkarma.h>
#include <orvutils/daemon.h>
#include <orvutils/json.h>
#include <orvutils/locking.h>
#include <orvutils/log.h>
#include <orvutils/path.h>
#include <orvutils/script.h>
#include <orvutils/time.h>
#include <orvutils/version.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

using orv::fake::Fake;

namespace {

Fake& platform()
{
    return *Fake::current();
}

std::string json_text(const json_t* value)
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
    return !platform().fails("log::open_channel(" + std::to_string(channel) + ")") && channel >= 0;
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
    if (type != TimerType::monotonic)
        return base::failed(Error::invalid_argument);
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
    if (failing)
        return -1;
    if (first < 0 || period < 0)
        return base::failed(Error::invalid_argument);
    eventfd_t expirations = 0;
    if (eventfd_read(fd, &expirations) != 0 && errno != EAGAIN)
        return base::failed(Error::input_output);
    return 0;
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
    if (Fake* fake = Fake::current(); fake && fake->lock_files.erase(m_fd) != 0)
        fake->note("plock::close()");
}

std::optional<plock> plock::make(const path& file, flags how)
{
    const Fake::Calm calm;
    static int serial = 1 << 20; // numbers that are none of the kernel's
    const std::string name = file.str().substr(file.str().rfind('/') + 1);
    if (platform().fails("plock::make(" + name + ", " + std::to_string(static_cast<int>(how)) + ")"))
        return std::nullopt;
    if (file.str().empty() || (how == flags::none && platform().files_to_lock.count(file.str()) == 0)) {
        base::set_error(file.str().empty() ? Error::invalid_argument : Error::input_output);
        return std::nullopt;
    }
    platform().files_to_lock.insert(file.str());
    platform().lock_files[++serial] = {file.str(), std::nullopt};
    return plock(serial);
}

result plock::lock(type which)
{
    const Fake::Calm calm;
    if (platform().fails("plock::lock(" + std::to_string(static_cast<int>(which)) + ")"))
        return result::busy;
    auto& files = platform().lock_files;
    const auto own = files.find(m_fd);
    if (own == files.end()) {
        base::set_error(Error::input_output);
        return result::failed;
    }
    const bool is_taken = std::any_of(files.begin(), files.end(), [&](const auto& other) {
        return other.first != m_fd && other.second.file == own->second.file && other.second.held &&
               (which == type::exclusive || *other.second.held == type::exclusive);
    });
    if (is_taken)
        return result::busy;
    own->second.held = which;
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
    if (platform().fails(text + ")"))
        return -platform().error();
    const bool is_possible =
        flags == 0 && std::all_of(commands.begin(), commands.end(), [&](const auto& command) {
            return !command.empty() && !interpreter.empty();
        });
    return is_possible ? 0 : base::fail(Error::invalid_argument);
}

std::optional<std::string> get_release_version()
{
    const Fake::Calm calm;
    platform().note("get_release_version()");
    auto version = platform().release_version;
    return version && version->empty() ? std::nullopt : version;
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
    if (platform().fails("devMgmt::init()"))
        return -1;
    platform().devices_are_open = true;
    return 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("devMgmt::uninit()");
    platform().devices_are_open = false;
    platform().change_callbacks.clear();
}

int set_on_dev_info_change(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::set_on_dev_info_change(" + joined(fields) + ")"))
        return -1;
    if (!platform().devices_are_open || !callback)
        return base::failed(Error::invalid_argument);
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
    if (platform().fails("devMgmt::unset_on_dev_info_change(callback " + which + ")"))
        return -1;
    if (found == callbacks.end())
        return base::failed(Error::invalid_argument);
    callbacks.erase(found);
    return 0;
}

int get_device(const std::string& id, Device& device)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::get_device(" + id + ")"))
        return 0;
    const auto found = platform().devices.find(id);
    if (!platform().devices_are_open || found == platform().devices.end()) {
        base::set_error(platform().devices_are_open ? Error::no_such_key : Error::input_output);
        return 0;
    }
    device = found->second;
    return 1;
}

int get_devices(std::vector<Device>& devices)
{
    const Fake::Calm calm;
    if (platform().fails("devMgmt::get_devices()"))
        return -1;
    if (!platform().devices_are_open)
        return base::failed(Error::input_output);
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
    if (!mac.is_valid() || !platform().devices_are_open)
        return base::failed(mac.is_valid() ? Error::input_output : Error::invalid_argument);
    for (const auto& device : platform().devices)
        if (device.second.macs.count(mac) != 0) {
            id = device.first;
            return 0;
        }
    return base::failed(Error::no_such_key);
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

namespace {

const std::vector<RecordId> kRecords{{"agent", "version"},      {"agent", "registered"},
                                     {"agent", "subscription"}, {"agent", "enabled"},
                                     {"va", "scheduled"},       {"network", "interfaces"}};

} // namespace

std::vector<Record> get_defaults(const std::vector<RecordId>& filter)
{
    const Fake::Calm calm;
    std::string text;
    for (const auto& id : filter)
        text += (text.empty() ? "" : " ") + id.first + "." + id.second;
    platform().note("diagnosis::get_defaults(" + text + ")");

    std::vector<Record> records;
    for (const auto& id : filter.empty() ? kRecords : filter)
        if (std::find(kRecords.begin(), kRecords.end(), id) != kRecords.end())
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
        json_t* value = record.value ? record.value() : nullptr;
        json_object_set_new(json_object_get(all, record.id.first.c_str()), record.id.second.c_str(),
                            value ? value : json_null());
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
    std::tm utc{};
    char time[sizeof "yyyy-mm-ddTHH:MM:SSZ"] = "";
    std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&platform().now, &utc));
    json_object_set_new(all, "generated_at", json_string(time));
    const std::string version = platform().release_version.value_or("");
    json_object_set_new(all, "agent_version", json_string(version.empty() ? "2.0.0.0" : version.c_str()));
    return all;
}

} // namespace orv::diagnosis

// ---- telemetry

namespace orv::karma {

namespace {

std::string id_of(const json_t* event)
{
    const char* id = json_string_value(json_object_get(event, "id"));
    return id ? id : "";
}

/// Where the event stands in the outbox.
std::vector<std::string>::iterator find_kept(const std::string& id)
{
    auto& outbox = platform().outbox;
    const Fake::Paused paused;
    return std::find_if(outbox.begin(), outbox.end(), [&](const std::string& text) {
        const JsonPtr kept(json_loads(text.c_str(), 0, nullptr));
        return id_of(kept.get()) == id;
    });
}

/// The event without what it was given here.
std::string own_text(const json_t* event)
{
    const Fake::Paused paused;
    const JsonPtr copy(json_copy(const_cast<json_t*>(event)));
    json_object_del(copy.get(), "id");
    json_object_del(copy.get(), "timestamp");
    return json_text(copy.get());
}

} // namespace

int init()
{
    const Fake::Calm calm;
    if (platform().fails("karma::init()"))
        return -1;
    platform().outbox_is_open = true;
    return 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("karma::uninit()");
    platform().outbox_is_open = false;
    platform().events_in_flight.clear();
}

int read_events(std::vector<json_t*>& events)
{
    const Fake::Calm calm;
    if (platform().fails("karma::read_events()"))
        return -1;
    if (!platform().outbox_is_open)
        return base::failed(Error::input_output);
    for (const auto& text : platform().outbox)
        events.push_back(json_loads(text.c_str(), 0, nullptr));
    return 0;
}

json_t* build_karma_event_json(const char* type, json_t* data)
{
    const Fake::Calm calm;
    if (platform().fails("karma::build_karma_event_json(" + std::string(type ? type : "(none)") + ", " +
                         json_text(data) + ")") ||
        !type || !data)
        return nullptr;
    const std::string id = "event-" + std::to_string(++platform().last_event);
    return json_pack("{s:s,s:s,s:I,s:O}", "id", id.c_str(), "type", type, "timestamp",
                     static_cast<json_int_t>(platform().now), "data", data);
}

int submit_karma_event(json_t* event, Orvex* orvex)
{
    const Fake::Calm calm;
    const std::string id = id_of(event);
    if (platform().fails("karma::submit_karma_event(" + own_text(event) + ")"))
        return -1;
    if (id.empty())
        return base::failed(Error::invalid_argument);
    if (platform().outbox_is_open && find_kept(id) == platform().outbox.end())
        platform().outbox.push_back(json_text(event));
    if (orvex)
        platform().events_in_flight.push_back(id);
    return platform().outbox_is_open && orvex ? 0 : -1;
}

} // namespace orv::karma

void Fake::answer_event(const std::string& type)
{
    deliver([=] {
        const std::string id = events_in_flight.front();
        events_in_flight.erase(events_in_flight.begin());
        const auto kept = orv::karma::find_kept(id);
        if (type == "0" && kept != outbox.end())
            outbox.erase(kept);
    });
}
