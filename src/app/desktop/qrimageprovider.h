#pragma once

#include <QQuickImageProvider>

namespace lofthaven {

// "image://qr/<percent-encoded text>": the QR code of the text, at the largest whole-pixel
// scale that fits the requested size.
class QrImageProvider : public QQuickImageProvider
{
public:
    QrImageProvider();
    QImage requestImage(const QString &id, QSize *size, const QSize &requestedSize) override;
};

} // namespace lofthaven
