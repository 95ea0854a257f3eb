#include "send/readrange.h"

#include "api/apperror.h"

#include <QFile>
#include <QFileInfo>

namespace lofthaven {

QByteArray readRange(const QString &path, qint64 offset, qint64 length)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        throw AppError(file.errorString());
    if (!file.seek(offset))
        throw AppError(file.errorString());
    QByteArray bytes(length, Qt::Uninitialized);
    qint64 got = 0;
    while (got < length) {
        const qint64 n = file.read(bytes.data() + got, length - got);
        if (n < 0)
            throw AppError(file.errorString());
        if (n == 0)
            break;
        got += n;
    }
    if (got < length)
        throw AppError(QFileInfo(path).fileName() + u" changed while sending.");
    return bytes;
}

} // namespace lofthaven
