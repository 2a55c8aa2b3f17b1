// What the tests of the settings store share.

#include "store_support.h"

#include <orvutils/error.h>

void StoreTest::SetUp()
{
    ASSERT_EQ(orv::setMgmt::init(), 0);
}

void StoreTest::TearDown()
{
    orv::setMgmt::uninit();
}

std::string value_of(const std::string& key)
{
    std::string value;
    const int result = orv::setMgmt::getKey(key, value);
    return result < 0 ? "error " + std::to_string(-result) : value;
}

Outcome in_process_with_store(const std::function<int()>& body)
{
    return in_child([&]() -> int {
        orv::setMgmt::uninit();
        REQUIRE(orv::setMgmt::init() == 0);
        const int status = body();
        orv::setMgmt::uninit();
        return status;
    });
}
