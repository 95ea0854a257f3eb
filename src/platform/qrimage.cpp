#include "platform/qrimage.h"

#include <qrcodegen.hpp>

#include <algorithm>
#include <optional>

namespace lofthaven {

QImage qrImage(const QString &text, int size)
{
    const QByteArray bytes = text.toUtf8();
    std::optional<qrcodegen::QrCode> code;
    try {
        code.emplace(
            qrcodegen::QrCode::encodeText(bytes.constData(), qrcodegen::QrCode::Ecc::MEDIUM));
    } catch (const qrcodegen::data_too_long &) {
        return {};
    }
    const int modules = code->getSize() + 2 * kQrQuietZone;
    const int scale = std::max(1, size / modules);
    QImage image(modules * scale, modules * scale, QImage::Format_Grayscale8);
    image.fill(Qt::white);
    for (int y = 0; y < code->getSize(); ++y) {
        for (int x = 0; x < code->getSize(); ++x) {
            if (!code->getModule(x, y))
                continue;
            const int left = (x + kQrQuietZone) * scale;
            const int top = (y + kQrQuietZone) * scale;
            for (int row = top; row < top + scale; ++row)
                std::fill_n(image.scanLine(row) + left, scale, uchar(0));
        }
    }
    return image;
}

} // namespace lofthaven
