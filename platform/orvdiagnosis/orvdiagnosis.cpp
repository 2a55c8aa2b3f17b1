// A record is a name and a function; collecting is calling them in order. What a value is made of is in the
// *_records.cpp files.

#include "records.h"

#include <algorithm>
#include <ctime>
#include <iterator>

namespace orv::diagnosis {
namespace {

std::vector<Record> all_records()
{
    std::vector<Record> all;
    for (auto records : {agent_records(), system_records(), network_records()})
        std::move(records.begin(), records.end(), std::back_inserter(all));
    return all;
}

/// The category's object in the report, made when it is not there; null on failure.
json_t* category_of(json_t* report, const std::string& name)
{
    if (json_t* present = json_object_get(report, name.c_str()))
        return present;
    if (json_object_set_new(report, name.c_str(), json_object()) != 0)
        return nullptr;
    return json_object_get(report, name.c_str());
}

/// Takes the value; without one, the member is null.
bool set_member(json_t* object, const char* name, json_t* value)
{
    return json_object_set_new(object, name, value ? value : json_null()) == 0;
}

bool collect_record(json_t* report, const Record& record)
{
    json_t* category = category_of(report, record.id.first);
    return set_member(category, record.id.second.c_str(), record.value ? record.value() : nullptr);
}

/// The time as ISO 8601 has it, in UTC.
std::string utc_now()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char text[sizeof "yyyy-mm-ddTHH:MM:SSZ"] = "";
    if (!gmtime_r(&now, &utc) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return "";
    return text;
}

} // namespace

std::vector<Record> get_defaults(const std::vector<RecordId>& filter)
{
    std::vector<Record> all = all_records();
    if (filter.empty())
        return all;
    std::vector<Record> chosen;
    for (const auto& id : filter) {
        const auto found =
            std::find_if(all.begin(), all.end(), [&id](const Record& r) { return r.id == id; });
        if (found != all.end())
            chosen.push_back(*found);
    }
    return chosen;
}

void Manager::add(std::vector<Record> records)
{
    std::move(records.begin(), records.end(), std::back_inserter(m_records));
}

json_t* Manager::collect() const
{
    JsonPtr report{json_object()};
    for (const auto& record : m_records)
        if (!collect_record(report.get(), record))
            return nullptr;
    return report.release();
}

json_t* Manager::report() const
{
    JsonPtr report{collect()};
    if (!set_member(report.get(), "generated_at", json_string(utc_now().c_str())) ||
        !set_member(report.get(), "agent_version", json_string(agent_version().c_str())))
        return nullptr;
    return report.release();
}

} // namespace orv::diagnosis
