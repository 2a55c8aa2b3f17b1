// The reader's side of the device store.

#include <orvdevmgmt/orvdevmgmt.h>

#include "changes.h"
#include "device_store.h"

#include <orvbase/error_number.h>
#include <orvbase/without_throwing.h>
#include <orvdevmgmt/device_writer.h>

#include <memory>
#include <utility>

namespace orv::devMgmt {

namespace {

/// Null while the store is closed; shared with the listeners, which may be calling it.
std::shared_ptr<Changes> g_changes;

/// Closes the store again, unless all has gone well.
struct Opening {
    ~Opening()
    {
        if (is_complete)
            return;
        store::notify::unwatch(device_environment());
        device_environment().close();
    }

    bool is_complete = false;
};

int open(Error (store::Environment::*open_store)())
{
    if (g_changes)
        return 0;
    auto changes = std::make_shared<Changes>();
    if (const Error error = (device_environment().*open_store)(); error != Error::none)
        return base::failed(error);
    Opening opening;
    store::notify::watch(device_environment()); // before the first look: no commit falls in between
    if (!changes->start())
        return base::failed(Error::input_output);
    store::notify::add(changes);
    g_changes = std::move(changes);
    opening.is_complete = true;
    return 0;
}

/// Takes a use of the store for an opportunity to tell of what could not be told before.
void look_after_changes()
{
    if (g_changes)
        g_changes->try_again();
}

int find_device(const std::string& id, Device& device)
{
    look_after_changes();
    store::Read snapshot(device_environment());
    Error error = snapshot.error();
    Device found;
    if (error == Error::none)
        error = read_device(snapshot, id, found);
    if (error != Error::none) {
        base::set_error(error);
        return 0;
    }
    device = std::move(found);
    return 1;
}

int find_devices(std::vector<Device>& devices)
{
    look_after_changes();
    store::Read snapshot(device_environment());
    Error error = snapshot.error();
    std::vector<Device> found;
    if (error == Error::none)
        error = read_devices(snapshot, found);
    if (error != Error::none)
        return base::failed(error);
    devices = std::move(found);
    return 0;
}

int find_id(const sockutl::macaddr& mac, std::string& id)
{
    if (!mac.is_valid())
        return base::failed(Error::invalid_argument);
    look_after_changes();
    store::Read snapshot(device_environment());
    Error error = snapshot.error();
    if (error == Error::none)
        error = find_by_mac(snapshot, mac, id);
    return error == Error::none ? 0 : base::failed(error);
}

} // namespace

int init()
{
    return base::without_throwing(-1, [] { return open(&store::Environment::open); });
}

int try_to_init()
{
    return base::without_throwing(-1, [] { return open(&store::Environment::try_to_open); });
}

void uninit()
{
    if (!g_changes)
        return;
    g_changes->end();
    store::notify::remove(*g_changes);
    store::notify::unwatch(device_environment());
    g_changes.reset();
    device_environment().close();
}

int set_on_dev_info_change(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    if (!g_changes || !callback)
        return base::failed(Error::invalid_argument);
    return base::without_throwing(-1, [&] {
        g_changes->add(fields, callback);
        return 0;
    });
}

int unset_on_dev_info_change(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    return g_changes && g_changes->remove(fields, callback) ? 0 : base::failed(Error::invalid_argument);
}

int get_device(const std::string& id, Device& device)
{
    return base::without_throwing(0, [&] { return find_device(id, device); });
}

int get_devices(std::vector<Device>& devices)
{
    return base::without_throwing(-1, [&] { return find_devices(devices); });
}

int get_device_id_by_mac(const sockutl::macaddr& mac, std::string& id)
{
    return base::without_throwing(-1, [&] { return find_id(mac, id); });
}

} // namespace orv::devMgmt
