#include "receive/nooverwrite.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace lofthaven {

namespace {

struct Fd
{
    int fd = -1;
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

bool writeAll(int fd, const char *data, ssize_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size_t(size));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        data += n;
        size -= n;
    }
    return true;
}

} // namespace

int renameNoReplace(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) ==
        0)
        return 0;
    const int error = errno;
    if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP)
        return error;

    struct stat st;
    if (::lstat(source.constData(), &st) != 0)
        return errno;
    if (S_ISDIR(st.st_mode)) {
        // Folders cannot be hard-linked; rename() fails on a non-empty folder and replacing an
        // empty one loses nothing.
        if (::lstat(target.constData(), &st) == 0)
            return EEXIST;
        return ::rename(source.constData(), target.constData()) == 0 ? 0 : errno;
    }
    // link() refuses an existing name, which is the guarantee rename() lacks.
    if (::link(source.constData(), target.constData()) != 0)
        return errno;
    if (::unlink(source.constData()) != 0) {
        const int unlinkError = errno;
        ::unlink(target.constData());
        return unlinkError;
    }
    return 0;
}

int copyToNewFile(const QString &from, const QString &to)
{
    Fd in;
    in.fd = ::open(QFile::encodeName(from).constData(), O_RDONLY | O_CLOEXEC);
    if (in.fd < 0)
        return errno;
    Fd out;
    out.fd =
        ::open(QFile::encodeName(to).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (out.fd < 0)
        return errno;

    std::vector<char> buffer(1 << 20);
    for (;;) {
        const ssize_t n = ::read(in.fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        if (n == 0)
            break;
        if (!writeAll(out.fd, buffer.data(), n))
            return errno;
    }
    if (::fsync(out.fd) != 0)
        return errno;
    const int fd = out.fd;
    out.fd = -1;
    if (::close(fd) != 0)
        return errno;
    return 0;
}

QString systemErrorText(int error)
{
    char buffer[256];
    // GNU strerror_r may return a static string instead of filling the buffer.
    return QString::fromLocal8Bit(::strerror_r(error, buffer, sizeof buffer));
}

} // namespace lofthaven
