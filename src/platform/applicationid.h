#pragma once

namespace lofthaven {

// The application's one identifier: the credential store's service, the D-Bus name, the
// desktop file and the autostart entry are all named after it. Built in, never read from the
// running installation, so a moved or renamed binary still finds its sign-in.
inline constexpr char kApplicationId[] = "org.lofthaven.Lofthaven";

// The name the folders are made of ("Lofthaven" under the XDG data and cache homes).
inline constexpr char kApplicationName[] = "Lofthaven";

} // namespace lofthaven
