#pragma once

#include <QDirIterator>
#include <QFile>
#include <QStringList>

namespace lofthaven::testing {

// The files under `folder` (hidden ones too) that hold `secret` in plain text.
inline QStringList filesHolding(const QString &folder, const QByteArray &secret)
{
    QStringList found;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(secret))
            found << file.fileName();
    }
    return found;
}

} // namespace lofthaven::testing
