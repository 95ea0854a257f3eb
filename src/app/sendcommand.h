#pragma once

#include "app/commandcontext.h"

#include <QCoroTask>

namespace lofthaven {

// `lofthaven send [options] PATH...`: plans, checks the limit, uploads, prints code and link.
void addSendOptions(QCommandLineParser &parser);
QCoro::Task<int> sendCommand(CommandContext context);

} // namespace lofthaven
