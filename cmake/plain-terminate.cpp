// What the C++ library does when nobody catches an exception. Its own way is to print the exception's type, and brings along the
// 50 kB that turn such names into text.

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace __gnu_cxx {

void __verbose_terminate_handler() // NOLINT(bugprone-reserved-identifier): the name that is called
{
    constexpr std::string_view kText = "ended by an exception that nobody has caught\n";
    const bool is_told = write(STDERR_FILENO, kText.data(), kText.size()) > 0;
    (void)is_told; // there is nobody else to tell
    std::abort();
}

} // namespace __gnu_cxx
