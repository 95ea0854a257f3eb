#pragma once

#include <QtGlobal>

namespace lofthaven {

// The ZIP CRC-32 (the same polynomial and conditioning as zlib's crc32), computed with
// libdeflate's carry-less-multiply kernels: on the hot path of every archived byte, where
// zlib's table-driven loop was a third of the stream's CPU time.
class Crc32
{
public:
    // Continues `crc` (0 for a fresh start) over `size` bytes; any alignment, any length.
    static quint32 update(quint32 crc, const void *data, qsizetype size);
};

} // namespace lofthaven
