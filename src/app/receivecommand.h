#pragma once

#include "app/commandcontext.h"

#include <QCoroTask>

namespace lofthaven {

// `lofthaven receive [options] CODE-OR-LINK`: looks up, unlocks, downloads with resume, moves
// into place, unzips a zipped folder, prints the saved path.
void addReceiveOptions(QCommandLineParser &parser);
QCoro::Task<int> receiveCommand(CommandContext context);

} // namespace lofthaven
