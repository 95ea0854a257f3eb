#pragma once

namespace lofthaven::service {

// Column order of every transfer query (SELECT kTransferColumns FROM transfers).
inline constexpr const char *kTransferColumns =
    "id, code, owner_hash, user_id, name, size, mime, files, title, message, created_at, "
    "expires_at, max_downloads, downloads, password_hash, part_size, part_count, state, extended, "
    "to_self, device";

enum TransferColumn
{
    cId,
    cCode,
    cOwner,
    cUser,
    cName,
    cSize,
    cMime,
    cFiles,
    cTitle,
    cMessage,
    cCreated,
    cExpires,
    cMaxDownloads,
    cDownloads,
    cPassword,
    cPartSize,
    cPartCount,
    cState,
    cExtended,
    cToSelf,
    cDevice
};

} // namespace lofthaven::service
