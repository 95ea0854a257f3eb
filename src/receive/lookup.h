#pragma once

#include "api/apiclient.h"
#include "api/wirerecords.h"

#include <QCoroTask>

#include <optional>
#include <stop_token>

namespace lofthaven {

// Resolves what the user typed or pasted (a 6-digit code or a link) to the transfer's
// description. Unusable input fails with "Enter the 6-digit code or paste a <host> link.";
// a 404 from either call with "No active transfer uses that code or link.".
QCoro::Task<TransferMeta> lookupTransfer(APIClient client, QString input, QString serviceHost,
                                         std::stop_token stop = {});

// For a password-protected transfer, exchanges the password for a download token.
// Returns nothing when the transfer needs no password.
QCoro::Task<std::optional<QString>> unlockTransfer(APIClient client, TransferMeta meta,
                                                   QString password, std::stop_token stop = {});

} // namespace lofthaven
