#pragma once

#include <string>

namespace orvctl {

enum class Store { settings, devices, telemetry };

/// Who only looks creates nothing.
enum class Use { reading, writing };

/// One of the agent's stores, open as long as this lives. Why one cannot be opened is not logged, as
/// report_closed() says it; that one was repaired is.
class OpenedStore {
public:
    OpenedStore(Store store, Use use);
    OpenedStore(const OpenedStore&) = delete;
    OpenedStore& operator=(const OpenedStore&) = delete;
    ~OpenedStore();

    [[nodiscard]] bool is_open() const { return m_open; }
    /// Complains that it could not be opened, with the reason; the exit status.
    [[nodiscard]] int report_closed() const;

private:
    Store m_store;
    std::string m_missing; ///< the directory of a store that is not there, and is not to be created
    bool m_open;
};

} // namespace orvctl
