#pragma once

namespace lofthaven {

// Whether this process is the desktop application (not the command line, not a self-test).
// Desktop-only services, such as notifications, do nothing unless it is set. The desktop
// entry point sets it once at start. Threads: any (an atomic flag).
bool isDesktopApp();
void setDesktopApp(bool desktop);

} // namespace lofthaven
