#include "root.h"

#include <orvutils/log_control.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace orv::fuzz {
namespace {

namespace fs = std::filesystem;

std::string g_root;

void remove_root()
{
    std::error_code ignored;
    fs::remove_all(g_root, ignored);
}

/// Stores wait for the disk; memory is none.
fs::path directory_in_memory()
{
    const fs::path shared = "/dev/shm";
    std::error_code ignored;
    return fs::is_directory(shared, ignored) ? shared : fs::temp_directory_path();
}

} // namespace

const std::string& make_root()
{
    g_root = (directory_in_memory() / "orvane-fuzz-XXXXXX").string();
    if (!mkdtemp(g_root.data()) || setenv("ORV_ROOT", g_root.c_str(), /*replace=*/1) != 0) {
        std::perror("cannot make a root directory");
        std::exit(1);
    }
    (void)std::atexit(remove_root); // else it is left
    return g_root;
}

void log_nothing()
{
    log::set_threshold(-1);
}

} // namespace orv::fuzz
