// Apart from the rest, so that a program that does not print to a stream has none.

#include <orvutils/path.h>

#include <ostream>

namespace orv::detail {

void print_common_path(std::ostream& out, common_path which)
{
    const path directory = common_directory(which);
    if (directory.str().empty())
        out.setstate(std::ios::failbit); // no memory
    else
        out << directory.str();
}

} // namespace orv::detail
