#include "orvstore_support.h"

#include <string_view>

using orv::Error;
using orv::store::Environment;
using orv::store::Read;
using orv::store::Write;

Error write(Environment& environment, const std::string& key, const std::string& value, std::size_t tree)
{
    Write transaction(environment);
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = transaction.put(tree, key, value); error != Error::none)
        return error;
    return transaction.commit();
}

std::string value_in(Environment& environment, const std::string& key)
{
    Read transaction(environment);
    std::string_view value;
    if (transaction.error() != Error::none)
        return "unreadable";
    return transaction.get(0, key, value) == Error::none ? std::string(value) : "absent";
}

std::uint64_t last_commit(Environment& environment)
{
    const Read transaction(environment);
    return transaction.id();
}
