#include "app/desktop/qrimageprovider.h"

#include "app/desktop/qrimage.h"

#include <QUrl>

namespace lofthaven {

QrImageProvider::QrImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Image)
{}

QImage QrImageProvider::requestImage(const QString &id, QSize *size, const QSize &requestedSize)
{
    const QString text = QUrl::fromPercentEncoding(id.toUtf8());
    const QImage unit = qrImage(text, 1);
    int scale = 8;
    if (requestedSize.width() > 0)
        scale = std::max(1, requestedSize.width() / unit.width());
    const QImage image = scale == 1 ? unit : qrImage(text, scale);
    if (size)
        *size = image.size();
    return image;
}

} // namespace lofthaven
