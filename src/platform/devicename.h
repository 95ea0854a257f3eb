#pragma once

#include <QString>

namespace lofthaven {

// The word that names the platform in texts the user or the service sees ("Linux" here).
QString platformWord();

// This computer's name as the service lists it: "Lofthaven for Linux (" + host name + ")",
// cut to 60 characters. Computed once per process. Threads: any.
QString deviceName();

} // namespace lofthaven
