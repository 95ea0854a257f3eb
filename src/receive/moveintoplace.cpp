#include "receive/moveintoplace.h"

#include "api/apperror.h"
#include "receive/filenames.h"
#include "receive/nooverwrite.h"

#include <QDir>
#include <QFile>
#include <QUuid>

#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace lofthaven {

namespace {

// Each EEXIST means someone took the name we picked between the check and the rename; give up
// only if that keeps happening.
constexpr int kMaxLostRaces = 1000;

[[noreturn]] void throwSaveError(const QString &name, int error)
{
    throw AppError(u"Couldn't save " + name + u": " + systemErrorText(error) + u'.');
}

// Gives source the first free name for name in folder. Returns the path or throws.
QString placeNoReplace(const QString &source, const QString &name, const QString &folder,
                       bool *crossDevice)
{
    for (int attempt = 0;; ++attempt) {
        const QString target = uniquePath(folder, name);
        const int error = renameNoReplace(source, target);
        if (error == 0)
            return target;
        if (error == EEXIST && attempt < kMaxLostRaces)
            continue;
        if (error == EXDEV && crossDevice) {
            *crossDevice = true;
            return {};
        }
        throwSaveError(name, error);
    }
}

} // namespace

QString moveIntoPlace(const QString &partial, const QString &name, const QString &folder)
{
    std::error_code ec;
    std::filesystem::create_directories(QFile::encodeName(folder).toStdString(), ec);
    if (ec) {
        throw AppError(u"Couldn't create the folder " + QDir::toNativeSeparators(folder) + u": " +
                       QString::fromLocal8Bit(ec.message()) + u'.');
    }

    const QString safeName = safeFileName(name);
    bool crossDevice = false;
    const QString placed = placeNoReplace(partial, safeName, folder, &crossDevice);
    if (!crossDevice)
        return placed;

    // The temporary folder is on another file system: copy next to the destination first so the
    // final step is still an atomic rename.
    const QString hidden =
        QDir(folder).filePath(u".lh-move-" + QUuid::createUuid().toString(QUuid::WithoutBraces));
    if (const int error = copyToNewFile(partial, hidden)) {
        ::unlink(QFile::encodeName(hidden).constData());
        throwSaveError(safeName, error);
    }
    QString target;
    try {
        target = placeNoReplace(hidden, safeName, folder, nullptr);
    } catch (...) {
        ::unlink(QFile::encodeName(hidden).constData());
        throw;
    }
    // The bytes are safe under their final name; a partial file left behind is only clutter.
    ::unlink(QFile::encodeName(partial).constData());
    return target;
}

} // namespace lofthaven
