// Straight on the outbox's own library. The events are shown as they are kept: whoever looks wants to know
// what will be sent.

#include "telemetry.h"

#include "exit_status.h"
#include "stores.h"

#include <orvkarma/outbox.h>

#include <string>
#include <vector>

namespace orvctl {
namespace {

namespace outbox = orv::karma::outbox;

int report(orv::Error error)
{
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
    const OpenedStore opened(Store::telemetry, Use::reading);
    if (!opened.is_open())
        return opened.report_closed();
    std::vector<outbox::Entry> entries;
    const int status = report(outbox::read(entries));
    if (status == kSuccess)
        print(entries, output);
    return status;
}

int run_telemetry_clear()
{
    // How large the outbox may become does not matter to who empties it.
    const OpenedStore opened(Store::telemetry, Use::writing);
    return opened.is_open() ? report(outbox::clear()) : opened.report_closed();
}

} // namespace orvctl
