#pragma once

#include "app/commandcontext.h"

#include <QCoroTask>

namespace lofthaven {

// `lofthaven login [--no-browser] [--json]`: device sign-in, approved in the browser.
void addLoginOptions(QCommandLineParser &parser);
QCoro::Task<int> loginCommand(CommandContext context);

// `lofthaven logout`: revokes the token at the service and forgets it here.
QCoro::Task<int> logoutCommand(CommandContext context);

// `lofthaven whoami [--json]`: the account, its plan and limits; exit 1 when signed out.
void addWhoamiOptions(QCommandLineParser &parser);
QCoro::Task<int> whoamiCommand(CommandContext context);

} // namespace lofthaven
