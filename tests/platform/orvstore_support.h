#pragma once

#include <orvstore/transaction.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// One transaction each.
orv::Error write(orv::store::Environment& environment, const std::string& key, const std::string& value,
                 std::size_t tree = 0);
/// A key's value in the first tree; "absent" without one, "unreadable" when the store cannot be read.
std::string value_in(orv::store::Environment& environment, const std::string& key);
/// The number of the last commit.
std::uint64_t last_commit(orv::store::Environment& environment);
