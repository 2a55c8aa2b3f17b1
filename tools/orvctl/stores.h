#pragma once

namespace orvctl {

enum class Store { settings, devices, telemetry };

/// One of the agent's stores, open as long as this lives. Why one cannot be opened is not logged, as
/// report_closed() says it, unless ORV_LOG_LEVEL is set.
class OpenedStore {
public:
    explicit OpenedStore(Store store);
    OpenedStore(const OpenedStore&) = delete;
    OpenedStore& operator=(const OpenedStore&) = delete;
    ~OpenedStore();

    [[nodiscard]] bool is_open() const { return m_open; }

private:
    Store m_store;
    bool m_open;
};

/// Complains about a store that could not be opened, with the reason; the exit status.
[[nodiscard]] int report_closed(Store store);

} // namespace orvctl
