#pragma once

#include "output.h"

#include <orvbroker/client.h>

/// How answers are shown.
namespace orvctl {

/// Prints an answer: for people a successful one that is a list of objects as a table, with a column for each
/// member; any other, and all of them otherwise, as the JSON text that was received.
void print_answer(const orvbroker::Answer& answer, Output& output);

} // namespace orvctl
