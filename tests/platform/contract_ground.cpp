#include "contract_ground.h"

#include <orvbase/error_number.h>
#include <orvutils/error.h>
#include <orvutils/setmgmt.h>

namespace orv::contract {

Result result_of(const std::function<int()>& call)
{
    base::set_error(Error::none);
    const int value = call();
    return {value, _get_orverrno()};
}

void ContractTest::SetUp()
{
    ASSERT_EQ(setMgmt::init(), 0);
}

void ContractTest::TearDown()
{
    setMgmt::uninit();
}

} // namespace orv::contract
