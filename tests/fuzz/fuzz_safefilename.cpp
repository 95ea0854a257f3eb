// Names from the service and from archives: the safe name is never empty, holds no separator,
// colon or control character, does not start with a dot, fits a Linux file name with room for
// a " (n)" suffix, can be created, and is its own safe name.

#include "fuzzcheck.h"
#include "receive/filenames.h"

#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <unistd.h>

using namespace lofthaven;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir folder;
    const QString name = fuzz::textOf(data, size);
    const QString safe = safeFileName(name);

    FUZZ_CHECK(!safe.isEmpty());
    FUZZ_CHECK(!safe.contains(u'/') && !safe.contains(u':'));
    FUZZ_CHECK(!safe.startsWith(u'.'));
    for (const QChar c : safe)
        FUZZ_CHECK(c.category() != QChar::Other_Control);
    FUZZ_CHECK(safe.toUcs4().size() <= 200);
    const QByteArray encoded = QFile::encodeName(safe);
    FUZZ_CHECK(encoded.size() + qsizetype(sizeof(" (99999)")) - 1 <= 255);
    FUZZ_CHECK(safeFileName(safe) == safe);

    const QByteArray path = QFile::encodeName(folder.path()) + '/' + encoded;
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    FUZZ_CHECK(fd >= 0);
    ::close(fd);
    ::unlink(path.constData());
    return 0;
}
