#pragma once

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvexchange/orvexchange.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>

// What the platform's declarations promise, and the daemon builds on, is one suite of tests that is compiled
// twice: over the platform libraries, and over the fake that the unit tests put in their place. So the unit
// tests show nothing that cannot happen, and miss nothing for the fake's kindness.

namespace orv::contract {

/// What the test does in the place of others: of those who have made the platform, of other processes, of
/// time.
class Ground {
public:
    Ground() = default;
    Ground(const Ground&) = delete;
    Ground& operator=(const Ground&) = delete;
    virtual ~Ground() = default;

    /// That which the tests are compiled for.
    static std::unique_ptr<Ground> make();

    /// The platform's root directory is below it.
    [[nodiscard]] virtual std::string directory() const = 0;
    /// Lets a timer expire now.
    virtual void expire(int timer) = 0;
    /// The lines of the release file.
    virtual void install_release(const std::string& version, const std::string& patch) = 0;
    virtual void uninstall_release() = 0;

    /// What the device manager does. The library's callbacks are called by it.
    virtual void put_device(const devMgmt::Device& device) = 0;
    virtual void remove_device(const std::string& did) = 0;

    /// The exchange, and "orvagent" on it.
    virtual bool start_exchange() = 0;
    /// An event for whoever has joined.
    virtual void publish(const std::string& name, const std::string& data) = 0;
    /// A request to the participant; the agent does not wait for its answer.
    virtual void ask(const std::string& participant, const std::string& name, const std::string& data) = 0;
    /// Takes the oldest request or message to the agent that it has not taken yet: its name, a blank and its
    /// data.
    virtual std::string take() = 0;
    /// Answers the request that was taken last.
    virtual void answer(const std::string& type, const std::string& data) = 0;
    /// Reads the exchange until that holds. False when it does not come to that.
    virtual bool serve_until(Orvex* orvex, const std::function<bool()>& condition) = 0;
};

/// What a call returned, and the error number that it has left: 0 for none.
struct Result {
    int value = 0;
    int error = 0;

    friend bool operator==(const Result& a, const Result& b)
    {
        return a.value == b.value && a.error == b.error;
    }
    friend std::ostream& operator<<(std::ostream& out, const Result& result)
    {
        return out << result.value << ", error " << result.error;
    }
};
Result result_of(const std::function<int()>& call);

constexpr Result kDone{0, 0};
/// What those functions return that tell the error by their result, too.
constexpr Result failed(int error)
{
    return {-error, error};
}

/// A test of the contract, with the settings store open.
class ContractTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<Ground> ground = Ground::make();
};

} // namespace orv::contract
