#pragma once

#include "app/commandcontext.h"

#include <QCoroTask>

namespace lofthaven {

// The history the app shows, from a terminal, through the same model operations:
//   lofthaven history [--json]            the transfers sent from this computer
//   lofthaven extend ID                    three more days, once per transfer
//   lofthaven delete [--yes] ID            the link and code stop working for everyone
//   lofthaven forget ID                    off the list; the transfer keeps working
//   lofthaven inbox [--json]               what arrived from your devices (signed in)
void addHistoryOptions(QCommandLineParser &parser, const QString &verb);
QCoro::Task<int> historyCommand(CommandContext context);
QCoro::Task<int> extendCommand(CommandContext context);
QCoro::Task<int> deleteCommand(CommandContext context);
QCoro::Task<int> forgetCommand(CommandContext context);
QCoro::Task<int> inboxCommand(CommandContext context);

} // namespace lofthaven
