#include "app/desktop/qrimage.h"

#include <qrcodegen/qrcodegen.hpp>

#include <QPainter>

namespace lofthaven {

QImage qrImage(const QString &text, int scale)
{
    constexpr int kQuiet = 4;
    scale = std::max(1, scale);
    const qrcodegen::QrCode code =
        qrcodegen::QrCode::encodeText(text.toUtf8().constData(), qrcodegen::QrCode::Ecc::MEDIUM);
    const int modules = code.getSize() + 2 * kQuiet;
    QImage image(modules * scale, modules * scale, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    for (int y = 0; y < code.getSize(); ++y) {
        for (int x = 0; x < code.getSize(); ++x) {
            if (code.getModule(x, y))
                painter.fillRect((x + kQuiet) * scale, (y + kQuiet) * scale, scale, scale,
                                 Qt::black);
        }
    }
    return image;
}

} // namespace lofthaven
