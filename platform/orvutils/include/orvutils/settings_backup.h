#pragma once

#include <string>
#include <string_view>

/// All durable settings in one text, to be kept elsewhere. The store must be open (init()); whoever else uses it
/// may go on.
///
/// The text is the line "orvane settings 1", then for each key in order a line with the sizes of its path and
/// of its value ("15 1"), these two without anything in between, and a line feed; at the end a line "end" with
/// the number of keys. Values are any bytes.
namespace orv::setMgmt {

/// Makes a text of the settings as they are at one moment. 0, or below 0.
[[nodiscard]] int backup(std::string& text);

/// Makes the durable settings those of a text, all of them or none: keys that are not in it are removed, and
/// those that have their value already are left alone. 0, or below 0: error 1 for a text that is none of
/// backup()'s, whole and unchanged in its structure; nothing has changed then.
[[nodiscard]] int restore(std::string_view text);

} // namespace orv::setMgmt
