#pragma once

#include <QLocale>
#include <QString>

namespace lofthaven {

// The one byte-count style of the product: 1024-based units named KB, MB, GB, ...
// ("Zero KB", "1 byte", "512 bytes", "2 KB", "12.4 MB", "4 GB").
// Bytes and KB show no decimals, MB at most one, GB and larger at most two.
// Numbers follow the user's locale; the C locale reads as US English ("1,023 bytes").
QString formatByteCount(qint64 bytes, QLocale locale = QLocale());

} // namespace lofthaven
