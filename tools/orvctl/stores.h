#pragma once

namespace orvctl {

/// The settings store, open as long as this lives.
class SettingsStore {
public:
    SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;
    ~SettingsStore();

    [[nodiscard]] bool is_open() const { return m_open; }

private:
    bool m_open;
};

/// The device store, open as long as this lives.
class DeviceStore {
public:
    DeviceStore();
    DeviceStore(const DeviceStore&) = delete;
    DeviceStore& operator=(const DeviceStore&) = delete;
    ~DeviceStore();

    [[nodiscard]] bool is_open() const { return m_open; }

private:
    bool m_open;
};

/// Complains about a store that could not be opened; the exit status.
[[nodiscard]] int report_closed(const char* store);

} // namespace orvctl
