#pragma once

#include <QString>

namespace lofthaven {

// Where downloads land: the user's download folder (XDG download dir).
QString downloadFolder();
// Scratch space for spilled parts and partial downloads ($XDG_CACHE_HOME/Lofthaven).
QString tempFolder();

} // namespace lofthaven
