#pragma once

#include <orvstore/failure.h>

namespace orv::setMgmt {

/// Why init() has failed, of whichever of the store's two parts that was; Kind::none when it has not.
[[nodiscard]] const store::Failure& failure();

} // namespace orv::setMgmt
