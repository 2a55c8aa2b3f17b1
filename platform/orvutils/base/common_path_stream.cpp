// Apart from the rest, so that a program that does not print to a stream has none.

#include <orvutils/path.h>

#include <new>
#include <ostream>

namespace orv::detail {

void print_common_path(std::ostream& out, common_path which)
try {
    out << common_directory(which).str();
} catch (const std::bad_alloc&) {
    out.setstate(std::ios::failbit);
}

} // namespace orv::detail
