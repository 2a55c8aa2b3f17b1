#pragma once

#include <string_view>

/// Where lines end. Neither sink ever waits, and what one does not take it does not keep.
namespace orv::log {

/// Writes a whole line, its line feed included, with one write. False, with nothing written, when standard
/// error does not take it now.
[[nodiscard]] bool write_to_standard_error(std::string_view line);

/// The rest of a line that was taken in part goes before the next one; this is for when there is none.
void write_rest_of_line();
[[nodiscard]] bool is_line_torn();

/// Gives up all that is known of standard error, and the rest of a line: lines go elsewhere from now on, or
/// this is a new process, and its parent goes on with that rest.
void leave_standard_error();

/// Sends one message, put together from these parts, to the datagram socket at `address`; connects to it when
/// it is not, or when another socket has taken its place. False when it does not take it now.
[[nodiscard]] bool send_to_syslog(const char* address, std::string_view head, std::string_view program,
                                  std::string_view process, std::string_view text);

} // namespace orv::log
