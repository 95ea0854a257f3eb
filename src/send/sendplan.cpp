#include "send/sendplan.h"

#include "api/apperror.h"
#include "platform/bytecount.h"
#include "platform/finderorder.h"
#include "platform/mimetypes.h"
#include "send/zipstream.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace lofthaven {

namespace {

constexpr qsizetype kMaxArchiveItems = 65000;
constexpr qint64 kMaxArchiveSize = 0xFFFFFFFFLL; // no ZIP64: sizes and offsets are 32-bit

bool isIgnoredName(const char *name)
{
    return std::strcmp(name, ".DS_Store") == 0 || std::strcmp(name, "Thumbs.db") == 0;
}

QDateTime modificationTime(const struct stat &st)
{
    const qint64 ms = qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

SendItem makeItem(const QByteArray &path, QString name, const struct stat &st)
{
    return SendItem{QFile::decodeName(path), std::move(name), qint64(st.st_size),
                    modificationTime(st)};
}

// Collects the regular files below `root` (an absolute, clean path). One directory is open at a
// time and every entry costs at most one fstatat relative to it; symbolic links are never
// followed (O_NOFOLLOW on every directory we descend into, AT_SYMLINK_NOFOLLOW on every stat).
// Unreadable folders and entries that vanish meanwhile are passed over silently.
// `found` counts every regular file seen so far in the selection. Past the item limit the
// items are dropped and the walk only counts (no stat where the directory tells the type),
// so a million-file folder is refused with its exact count in little memory.
QList<SendItem> collectFolder(const QByteArray &root, const QString &folder, qsizetype &found)
{
    QList<SendItem> items;
    QList<QByteArray> pending{QByteArray()}; // paths relative to root
    while (!pending.isEmpty()) {
        const QByteArray rel = pending.takeLast();
        const QByteArray dirPath = rel.isEmpty() ? root : root + '/' + rel;
        const int fd = ::open(dirPath.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            continue;
        DIR *dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            continue;
        }
        while (const dirent *entry = ::readdir(dir)) {
            const char *name = entry->d_name;
            if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
                continue;
            if (entry->d_type == DT_LNK)
                continue;
            const QByteArray childRel = rel.isEmpty() ? QByteArray(name) : rel + '/' + name;
            if (entry->d_type == DT_DIR) {
                pending.append(childRel);
                continue;
            }
            if (isIgnoredName(name))
                continue;
            if (found >= kMaxArchiveItems && entry->d_type == DT_REG) {
                ++found;
                continue;
            }
            struct stat st;
            if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            if (S_ISDIR(st.st_mode)) {
                pending.append(childRel); // file systems that report DT_UNKNOWN
            } else if (S_ISREG(st.st_mode)) {
                if (++found > kMaxArchiveItems) {
                    items = QList<SendItem>();
                    continue;
                }
                items.append(makeItem(root + '/' + childRel,
                                      folder + u'/' + QString::fromUtf8(childRel), st));
            }
        }
        ::closedir(dir);
    }
    return items;
}

// By the extension alone: a bare "README" or ".env" has none, so no type is announced.
std::optional<QString> mimeTypeForExtension(const QString &name)
{
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot <= 0 || dot == name.size() - 1)
        return std::nullopt;
    return mimeTypeForFileName(u"file" + name.mid(dot));
}

// The file manager's order, stable. Collation keys are computed once per name: comparing
// them is a memcmp, where collating pairs would re-read shared folder prefixes every time.
QList<SendItem> sortedByName(QList<SendItem> items, const FinderOrder &order)
{
    struct Keyed
    {
        QCollatorSortKey key;
        qsizetype index;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(size_t(items.size()));
    for (qsizetype i = 0; i < items.size(); ++i)
        keyed.push_back(Keyed{order.sortKey(items.at(i).name), i});
    std::stable_sort(keyed.begin(), keyed.end(), [&](const Keyed &a, const Keyed &b) {
        if (const int r = a.key.compare(b.key))
            return r < 0;
        return order.compare(items.at(a.index).name, items.at(b.index).name) < 0;
    });
    QList<SendItem> sorted;
    sorted.reserve(items.size());
    for (const Keyed &k : keyed)
        sorted.append(std::move(items[k.index]));
    return sorted;
}

AppError tooManyFiles(qsizetype count)
{
    return AppError(u"Too many files (" + QString::number(count) + u"). Zip the folder first.");
}

QString systemError(const QString &path, int error)
{
    return path + u": " + QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

SendPlan SendPlan::make(const QList<QString> &paths)
{
    QList<SendItem> items;
    qsizetype found = 0;
    const FinderOrder order;
    for (const QString &selected : paths) {
        const QString path = QDir::cleanPath(QFileInfo(selected).absoluteFilePath());
        const QByteArray native = QFile::encodeName(path);
        struct stat st;
        if (::lstat(native.constData(), &st) != 0)
            throw AppError(systemError(path, errno));
        if (S_ISREG(st.st_mode)) {
            if (++found <= kMaxArchiveItems)
                items.append(makeItem(native, QFileInfo(path).fileName(), st));
        } else if (S_ISDIR(st.st_mode)) {
            QList<SendItem> collected = collectFolder(native, QFileInfo(path).fileName(), found);
            if (found <= kMaxArchiveItems)
                items.append(sortedByName(std::move(collected), order));
        }
        if (found > kMaxArchiveItems)
            items = QList<SendItem>(); // only the count matters from here on
        // Anything else (a symbolic link, a device, a socket) is skipped without a message.
    }
    if (found > kMaxArchiveItems)
        throw tooManyFiles(found);
    return fromItems(std::move(items), paths.size());
}

SendPlan SendPlan::fromItems(QList<SendItem> items, qsizetype selectionCount)
{
    const qsizetype count = items.size();
    if (count == 1 && !items.first().name.contains(u'/')) {
        const SendItem &item = items.first();
        if (item.size == 0)
            throw AppError(item.name + u" is empty.");
        SendPlan plan;
        plan.name = item.name;
        plan.size = item.size;
        plan.mime = mimeTypeForExtension(item.name);
        plan.items = std::move(items);
        return plan;
    }
    if (count == 0)
        throw AppError(QStringLiteral("Nothing to send (empty folder?)."));
    if (count > kMaxArchiveItems)
        throw tooManyFiles(count);

    SendPlan plan;
    const bool oneFolder =
        selectionCount == 1 && std::all_of(items.cbegin(), items.cend(), [](const SendItem &item) {
            return item.name.contains(u'/');
        });
    if (oneFolder) {
        plan.name = items.first().name.section(u'/', 0, 0) + u".zip";
    } else {
        const QLocale posix(QLocale::English, QLocale::UnitedStates);
        plan.name = u"Lofthaven-" +
                    posix.toString(QDateTime::currentDateTime(), QStringLiteral("yyyyMMdd-HHmm")) +
                    u".zip";
    }
    plan.size = ZipStream::predictedSize(items);
    if (plan.size >= kMaxArchiveSize)
        throw AppError(u"Zipped folders are limited to 4 GB (this one is " +
                       formatByteCount(plan.size) + u"). Send the files one by one.");
    plan.isZip = true;
    plan.mime = QStringLiteral("application/zip");
    plan.items = std::move(items);
    return plan;
}

} // namespace lofthaven
