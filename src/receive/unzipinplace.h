#pragma once

#include <QString>
#include <QtGlobal>

#include <stop_token>

namespace lofthaven {

// Extracts a downloaded ZIP archive into a new folder next to it, named after the archive
// without its extension and made unique, and returns that folder's path. An archive that holds
// only its own top folder (Trip.zip -> Trip/...) becomes that one folder, not Trip/Trip.
//
// Hostile archives are refused as a whole: only regular files and folders are created (no
// symlinks, hard links, devices or fifos), no name may leave the folder, nothing is overwritten,
// and extraction stops once more than byteBudget bytes have been written (pass the transfer's
// declared size plus a margin). Extraction happens in a hidden temporary folder that is renamed
// into place only when everything succeeded, so a failure leaves nothing behind.
//
// On success the archive is deleted. On failure it is kept and AppError("Couldn't unzip NAME.")
// is thrown; Cancelled when stop is requested. Blocking and thread-safe: run it through
// QtConcurrent::run.
QString unzipInPlace(const QString &archive, qint64 byteBudget, std::stop_token stop = {});

} // namespace lofthaven
