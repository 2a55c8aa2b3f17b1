// The mode is a text in the settings store, which others write: it may be anything.

#include <orvutils/leases.h>

#include <orvutils/setmgmt.h>

#include <string>

namespace orv {

namespace {

constexpr std::string_view kOrv = "orvleases-orv";
constexpr std::string_view kNg = "orvleases-ng";
constexpr auto kUnknown = static_cast<OrvleasesMode>(-1);

} // namespace

OrvleasesMode get_orvleases_mode()
{
    const std::string mode = setMgmt::getKeyValue("/leases/mode", std::string(kOrv));
    if (mode == kNg)
        return OrvleasesMode::ng;
    return mode == kOrv ? OrvleasesMode::orv : kUnknown;
}

std::string_view orvleases_mode_to_str(OrvleasesMode mode)
{
    switch (mode) {
    case OrvleasesMode::orv:
        return kOrv;
    case OrvleasesMode::ng:
        return kNg;
    }
    return "(unknown)";
}

} // namespace orv
