#pragma once

#include "call.h"

/// What "orvtuvosettings" does: it keeps the settings that come from the router's user.
namespace orvagentsim {

/// The schedule of the vulnerability scans, a JSON object whose members "enabled" and "scheduled" are Boolean
/// when they are there. It is kept as this text in the settings store, under /va/schedule.
[[nodiscard]] Reply va_set_schedule(const Call& call);

} // namespace orvagentsim
