#include "telemetry.h"

#include "exit_status.h"

#include <karma_outbox.h>

#include <functional>
#include <string>
#include <vector>

namespace orvctl {
namespace {

namespace outbox = orv::karma::outbox;

/// Does some work on the open outbox.
int with_outbox(const std::function<orv::Error()>& work)
{
    orv::Error error = outbox::open();
    if (error == orv::Error::none) {
        error = work();
        outbox::close();
    }
    if (error == orv::Error::none) {
        return kSuccess;
    }
    complain(
        "the telemetry outbox below the agent's root directory (ORV_ROOT, else /opt/orvane) failed (error " +
        std::to_string(static_cast<int>(error)) + ")");
    return kUnavailable;
}

void print(const std::vector<outbox::Entry>& entries, Output& output)
{
    if (!output.is_for_people()) {
        for (const auto& entry : entries) {
            output.json(entry.text);
        }
        return;
    }
    std::vector<std::vector<std::string>> rows;
    rows.reserve(entries.size());
    for (const auto& entry : entries) {
        rows.push_back({entry.id, entry.text});
    }
    output.table({"ID", "EVENT"}, rows);
}

} // namespace

int run_telemetry_list(Output& output)
{
    std::vector<outbox::Entry> entries;
    const int status = with_outbox([&entries] { return outbox::read(entries); });
    if (status == kSuccess) {
        print(entries, output);
    }
    return status;
}

int run_telemetry_clear()
{
    return with_outbox(outbox::clear);
}

} // namespace orvctl
