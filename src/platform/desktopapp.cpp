#include "platform/desktopapp.h"

#include <atomic>

namespace lofthaven {

namespace {
std::atomic<bool> s_desktop{false};
}

bool isDesktopApp()
{
    return s_desktop;
}

void setDesktopApp(bool desktop)
{
    s_desktop = desktop;
}

} // namespace lofthaven
