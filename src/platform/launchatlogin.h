#pragma once

// Launch at login through XDG autostart: $XDG_CONFIG_HOME/autostart/<application id>.desktop.
// Threads: any; plain file operations.

namespace lofthaven {

// Writes (true) or removes (false) the autostart entry. Throws AppError with the system's
// words when the file cannot be written or removed.
void setLaunchAtLogin(bool enabled);

// Whether the entry exists and is not hidden (Hidden=true turns an entry off).
bool launchAtLogin();

} // namespace lofthaven
