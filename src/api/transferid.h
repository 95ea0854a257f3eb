#pragma once

#include <QString>

namespace lofthaven {

// Transfer identifiers come from the service and end up in request paths and in the names of
// partial files, so only 1 to 64 ASCII letters and digits count as one: nothing the service
// sends can then climb out of a folder or reach another endpoint.
bool isTransferId(const QString &id);

// Returns `id` when it is a transfer identifier; otherwise throws AppError
// "The service sent a transfer identifier that is not valid.".
QString checkedTransferId(const QString &id);

} // namespace lofthaven
