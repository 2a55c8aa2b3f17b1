// The ground of the contract's tests when they are about the platform libraries.

#include "contract_ground.h"

#include "base_support.h"
#include "exchange_support.h"

#include <orvdevmgmt/device_writer.h>
#include <orvutils/setmgmt.h>
#include <orvutils/time.h>

#include <poll.h>

#include <filesystem>

namespace orv::contract {

namespace {

class RealGround : public Ground {
public:
    [[nodiscard]] std::string directory() const override { return m_bus.root(); }

    void expire(int timer) override
    {
        EXPECT_EQ(time::timer_start(timer, 1, 0, /*absolute=*/true), 0); // long ago
    }

    void install_release(const std::string& version, const std::string& patch) override
    {
        std::filesystem::create_directories(m_bus.root() + "/etc");
        spill(release(), "version=" + version + "\npatch=" + patch + "\n");
    }

    void uninstall_release() override { std::filesystem::remove(release()); }

    void put_device(const devMgmt::Device& device) override
    {
        EXPECT_EQ(devMgmt::put_device(device), 0);
        notice();
    }

    void remove_device(const std::string& did) override
    {
        EXPECT_EQ(devMgmt::remove_device(did), 0);
        notice();
    }

    bool start_exchange() override
    {
        if (!m_bus.start())
            return false;
        m_agent = std::make_unique<RawPeer>(m_bus.address(), "orvagent");
        return true;
    }

    void publish(const std::string& name, const std::string& data) override { m_agent->emit(name, data); }

    void ask(const std::string& participant, const std::string& name, const std::string& data) override
    {
        (void)m_agent->call(participant, "Request", name, data);
    }

    std::string take() override
    {
        m_taken = m_agent->receive();
        const auto content = content_of(m_taken);
        return content ? content->text + " " + content->bytes : "nothing";
    }

    void answer(const std::string& type, const std::string& data) override
    {
        m_agent->answer(*m_taken, type, data);
    }

    bool serve_until(Orvex* orvex, const std::function<bool()>& condition) override
    {
        return ::serve_until(orvex, [&] {
            notice();
            return condition();
        });
    }

private:
    [[nodiscard]] std::string release() const { return m_bus.root() + "/etc/release"; }

    /// What the daemon does when the descriptor of its watch says so.
    void notice()
    {
        setMgmt::MonitoredKey any(
            "/contract", [](const path&, void*) { return true; }, false, nullptr, false);
        pollfd entry{any.get_fd(), POLLIN, 0};
        while (poll(&entry, 1, 0) == 1)
            any.read_notifications();
    }

    Bus m_bus;
    std::unique_ptr<RawPeer> m_agent;
    RawMessage m_taken;
};

} // namespace

std::unique_ptr<Ground> Ground::make()
{
    return std::make_unique<RealGround>();
}

} // namespace orv::contract
