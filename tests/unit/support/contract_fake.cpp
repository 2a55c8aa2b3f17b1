// The ground of the contract's tests when they are about the fake.

#include "contract_ground.h"
#include "fake/fake.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <iterator>
#include <utility>

namespace orv::contract {

namespace {

using devMgmt::Device;
using devMgmt::DevInfoChangeType;
using fake::Fake;

constexpr std::string Device::*kTexts[] = {&Device::friendly_name, &Device::device_os, &Device::device_type};
constexpr const char* kTextNames[] = {"friendly_name", "device_os", "device_type"};

/// What a call's text has in its parentheses.
std::string inside(const std::string& call)
{
    const auto begin = call.find('(') + 1;
    return call.substr(begin, call.size() - 1 - begin);
}

/// Of "orvagent:name, data", with a blank between them.
std::string name_and_data(const std::string& arguments)
{
    const std::string agent = "orvagent:";
    const auto begin = arguments.rfind(agent, 0) == 0 ? agent.size() : 0;
    const auto comma = arguments.find(", ");
    return arguments.substr(begin, comma - begin) + arguments.substr(comma + 1);
}

class FakeGround : public Ground {
public:
    FakeGround()
    {
        char root[] = "/tmp/orvbrokerd-contract-XXXXXX";
        m_platform.root = mkdtemp(root);
    }
    FakeGround(const FakeGround&) = delete;
    FakeGround& operator=(const FakeGround&) = delete;
    ~FakeGround() override { rmdir(m_platform.root.c_str()); }

    [[nodiscard]] std::string directory() const override { return m_platform.root; }

    void expire(int timer) override { m_platform.expire(m_platform.name(timer)); }

    void install_release(const std::string& version, const std::string& patch) override
    {
        m_platform.release_version = version;
        m_platform.patch_version = patch;
    }

    void uninstall_release() override
    {
        m_platform.release_version = std::nullopt;
        m_platform.patch_version.clear();
    }

    void put_device(const Device& device) override
    {
        const auto [found, is_new] = m_platform.devices.try_emplace(device.did, device);
        if (is_new)
            m_platform.change_device(DevInfoChangeType::added, device, "");
        const Device before = std::exchange(found->second, device);
        for (std::size_t i = 0; i < std::size(kTexts); ++i)
            if (before.*kTexts[i] != device.*kTexts[i])
                m_platform.change_device(DevInfoChangeType::updated, device, kTextNames[i]);
    }

    void remove_device(const std::string& did) override
    {
        const auto removed = m_platform.devices.extract(did);
        m_platform.change_device(DevInfoChangeType::removed, removed.mapped(), "");
    }

    bool start_exchange() override { return true; }

    void publish(const std::string& name, const std::string& data) override
    {
        m_platform.deliver(name, data, ++m_last_id);
    }

    void ask(const std::string& /*participant*/, const std::string& name, const std::string& data) override
    {
        m_platform.deliver(name, data, ++m_last_id);
    }

    std::string take() override
    {
        for (std::string& call : m_platform.take_calls())
            m_calls.push_back(std::move(call));
        while (!m_calls.empty()) {
            const std::string call = std::move(m_calls.front());
            m_calls.pop_front();
            m_has_taken_event = call.rfind("karma::submit_karma_event(", 0) == 0;
            if (m_has_taken_event)
                return "telemetry_event " + inside(call);
            if (call.rfind("orvex_send_", 0) == 0)
                return name_and_data(inside(call));
        }
        return "nothing";
    }

    void answer(const std::string& type, const std::string& data) override
    {
        if (m_has_taken_event)
            m_platform.answer_event(type);
        else
            m_platform.answer(data, type);
    }

    bool serve_until(Orvex* orvex, const std::function<bool()>& condition) override
    {
        return condition() || (orvex_read_fd(orvex) == 0 && condition());
    }

private:
    Fake m_platform;
    std::uint64_t m_last_id = 0;
    std::deque<std::string> m_calls; ///< after the one that was taken last
    bool m_has_taken_event = false;
};

} // namespace

std::unique_ptr<Ground> Ground::make()
{
    return std::make_unique<FakeGround>();
}

} // namespace orv::contract
