#include "app/desktop/qrimageprovider.h"

#include "platform/qrimage.h"

#include <QUrl>

namespace lofthaven {

QrImageProvider::QrImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{}

QImage QrImageProvider::requestImage(const QString &id, QSize *size, const QSize &requestedSize)
{
    const QString text = QUrl::fromPercentEncoding(id.toUtf8());
    const QImage image = qrImage(text, requestedSize.width() > 0 ? requestedSize.width() : 256);
    if (size)
        *size = image.size();
    return image;
}

} // namespace lofthaven
