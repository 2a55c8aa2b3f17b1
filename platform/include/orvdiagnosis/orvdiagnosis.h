#pragma once

#include <jansson.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// Diagnosis records, collected as JSON. The settings store must be open.
namespace orv::diagnosis {

/// Category and name of a record, for example {"agent", "version"}.
using RecordId = std::pair<std::string, std::string>;

/// One record: what it is called and how its value is found out.
struct Record {
    RecordId id;
    std::function<json_t*()> value; ///< a new reference, or null when there is no value
};

/// The library's own records: those with the given identifiers, in that order, or all of them without any.
[[nodiscard]] std::vector<Record> get_defaults(const std::vector<RecordId>& filter = {});

/// A set of records to be collected.
class Manager {
public:
    void add(std::vector<Record> records);

    /// {category: {name: value}}, a new reference; null on failure.
    [[nodiscard]] json_t* collect() const;

    /// The same with "generated_at" and "agent_version", either of which is null when it cannot be told. A
    /// new reference; null on failure.
    [[nodiscard]] json_t* report() const;

private:
    std::vector<Record> m_records;
};

} // namespace orv::diagnosis
