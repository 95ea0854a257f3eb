#include "send/crc32.h"

#include <libdeflate.h>

namespace lofthaven {

quint32 Crc32::update(quint32 crc, const void *data, qsizetype size)
{
    if (size <= 0)
        return crc;
    return libdeflate_crc32(crc, data, size_t(size));
}

} // namespace lofthaven
