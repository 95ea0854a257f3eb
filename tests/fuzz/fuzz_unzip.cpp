// Unzip of arbitrary bytes in a folder of its own: it succeeds or throws AppError, and either
// way nothing lands outside that folder. On success the folder holds exactly the returned
// folder (the archive is gone) with only regular files and folders in it, within the byte
// budget; on failure it holds exactly the archive.

#include "api/apperror.h"
#include "fuzzcheck.h"
#include "receive/unzipinplace.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

using namespace lofthaven;

namespace {

constexpr qint64 kBudget = 256 * 1024;

QStringList entries(const QString &path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                QDir::NoDotAndDotDot);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // sandbox/run/in/a.zip: an escape by "..", a symlink or an absolute name inside the
    // sandbox shows up as a stray entry in run/ or the sandbox.
    static QTemporaryDir sandbox;
    const QString run = sandbox.filePath(QStringLiteral("run"));
    QDir(run).removeRecursively();
    const QString in = run + QStringLiteral("/in");
    FUZZ_CHECK(QDir().mkpath(in));
    const QString archive = in + QStringLiteral("/a.zip");
    {
        QFile file(archive);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly));
        FUZZ_CHECK(file.write(fuzz::bytesOf(data, size)) == qint64(size));
    }

    QString folder;
    try {
        folder = unzipInPlace(archive, kBudget);
    } catch (const AppError &) {
    }

    FUZZ_CHECK(entries(sandbox.path()) == QStringList{QStringLiteral("run")});
    FUZZ_CHECK(entries(run) == QStringList{QStringLiteral("in")});
    if (folder.isEmpty()) {
        FUZZ_CHECK(entries(in) == QStringList{QStringLiteral("a.zip")});
        return 0;
    }
    const QFileInfo result(folder);
    FUZZ_CHECK(result.absolutePath() == in);
    FUZZ_CHECK(entries(in) == QStringList{result.fileName()});
    FUZZ_CHECK(result.isDir() && !result.isSymLink());
    qint64 written = 0;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo entry(it.next());
        FUZZ_CHECK(!entry.isSymLink());
        FUZZ_CHECK(entry.isDir() || entry.isFile());
        if (entry.isFile())
            written += entry.size();
    }
    FUZZ_CHECK(written <= kBudget);
    return 0;
}
