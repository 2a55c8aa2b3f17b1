#pragma once

#include <orvbase/error.h>
#include <orvstore/failure.h>
#include <orvstore/usage.h>

namespace orv::setMgmt {

/// As init(), but why it fails is not logged: for those who tell it themselves. What is repaired is.
[[nodiscard]] int try_to_init();

/// Why either has failed, of whichever of the store's two parts that was; Kind::none when it has not.
[[nodiscard]] const store::Failure& failure();

/// How full the two parts are: the durable settings, and those below /tmp.
[[nodiscard]] Error measure(store::Usage& durable, store::Usage& below_tmp);

} // namespace orv::setMgmt
