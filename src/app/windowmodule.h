#pragma once

namespace lofthaven {

// Loads the window module installed beside the executable (../lib/lofthaven) and runs the
// window from it. Reports on standard error and answers 1 when the module cannot be loaded.
int runWindowModule(int &argc, char **argv);

} // namespace lofthaven
