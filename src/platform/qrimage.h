#pragma once

// A QR code of a text as an image (GUI-side: lofthaven_platform_gui).
// Threads: any; a pure function.

#include <QImage>
#include <QString>

namespace lofthaven {

// Modules of light border around the code, as readers expect.
inline constexpr int kQrQuietZone = 4;

// The text's UTF-8 bytes at error correction M, black on white with the quiet zone, scaled by
// the largest whole factor (at least 1) that fits `size` pixels: sharp modules, so the image
// may be smaller than asked (or larger, when `size` is below the code's own width). A null
// image when the text does not fit in a QR code.
QImage qrImage(const QString &text, int size);

} // namespace lofthaven
