#pragma once

#include <QStringList>

#include <optional>

namespace lofthaven {

// `lofthaven send …`, `lofthaven receive …`, `--help` and `--version`: the engine without a
// display, for terminals and scripts. Returns the exit status (0 success, 1 failure with the
// message on standard error, 2 usage error, 130 interrupted), or nothing when the arguments
// are not a command-line invocation.
std::optional<int> runCommandLine(const QStringList &arguments);

// Whether the arguments name a verb or an option of the command line (rather than files and
// links for the window). Needs no application object.
bool isCommandLineInvocation(const QStringList &arguments);

} // namespace lofthaven
