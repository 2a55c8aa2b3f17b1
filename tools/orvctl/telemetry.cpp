// Straight on the outbox's own library. The events are shown as they are kept: whoever looks wants to know
// what will be sent.

#include "telemetry.h"

#include "exit_status.h"
#include "stores.h"

#include <orvkarma/outbox.h>

#include <functional>
#include <string>
#include <vector>

namespace orvctl {
namespace {

namespace outbox = orv::karma::outbox;

/// Does some work on the open outbox.
int with_outbox(const std::function<orv::Error()>& work)
{
    const OpenedStore settings(Store::settings); // how large the outbox may become
    const OpenedStore opened(Store::telemetry);
    if (!opened.is_open())
        return report_closed(Store::telemetry);
    const orv::Error error = work();
    if (error == orv::Error::none)
        return kSuccess;
    complain("the telemetry outbox failed (error " + std::to_string(static_cast<int>(error)) + ")");
    return kUnavailable;
}

void print(const std::vector<outbox::Entry>& entries, Output& output)
{
    if (!output.is_for_people()) {
        for (const auto& entry : entries)
            output.json(entry.text);
        return;
    }
    std::vector<std::vector<std::string>> rows;
    rows.reserve(entries.size());
    for (const auto& entry : entries)
        rows.push_back({entry.id, entry.text});
    output.table({"ID", "EVENT"}, rows);
}

} // namespace

int run_telemetry_list(Output& output)
{
    std::vector<outbox::Entry> entries;
    const int status = with_outbox([&entries] { return outbox::read(entries); });
    if (status == kSuccess)
        print(entries, output);
    return status;
}

int run_telemetry_clear()
{
    return with_outbox(outbox::clear);
}

} // namespace orvctl
