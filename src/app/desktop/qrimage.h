#pragma once

#include <QImage>
#include <QString>

namespace lofthaven {

// The QR code of `text` (error correction M) with a four-module quiet zone, each module
// `scale` pixels square, dark on white. Scaled by whole pixels only, so readers decode it
// at any size the screen shows.
QImage qrImage(const QString &text, int scale);

} // namespace lofthaven
