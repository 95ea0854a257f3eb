#include "receive/unzipinplace.h"

#include "api/apperror.h"
#include "api/cancelled.h"
#include "platform/displaytext.h"
#include "receive/filenames.h"
#include "receive/nooverwrite.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLoggingCategory>
#include <QUuid>

#include <archive.h>
#include <archive_entry.h>
#include <zlib.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <langinfo.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcUnzip, "lofthaven.receive.unzip")

namespace lofthaven {

namespace {

// No ARCHIVE_EXTRACT_OWNER/PERM/ACL/XATTR/FFLAGS: modes are cleaned by hand and the umask
// applies. SECURE_NOABSOLUTEPATHS is left out because we hand libarchive absolute paths under
// our own folder (cwd is process-wide, so no chdir); absolute entry names are refused earlier.
constexpr int kWriteFlags = ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                            ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_NO_OVERWRITE;
constexpr int kNameMax = 255;
constexpr quint64 kMaxCentralDirectory = 512 * 1024 * 1024;
const QString kTempPrefix = QStringLiteral(".lh-unzip-");

struct Refused
{
    QString reason;
};

[[noreturn]] void refuse(const QString &reason)
{
    throw Refused{reason};
}

QString archiveErrorText(archive *a)
{
    const char *text = archive_error_string(a);
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown archive error");
}

// libarchive converts entry names to the locale's encoding; under LANG=C every non-ASCII name
// would fail, and Qt does not switch LC_CTYPE to UTF-8 by itself.
void ensureUtf8Ctype()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const char *codeset = nl_langinfo(CODESET);
        if (codeset && (qstricmp(codeset, "UTF-8") == 0 || qstricmp(codeset, "utf8") == 0))
            return;
        if (!std::setlocale(LC_CTYPE, "C.UTF-8"))
            std::setlocale(LC_CTYPE, "en_US.UTF-8");
    });
}

struct ReadArchive
{
    archive *a = archive_read_new();
    ~ReadArchive() { archive_read_free(a); }
};

struct DiskWriter
{
    archive *a = archive_write_disk_new();
    ~DiskWriter() { archive_write_free(a); }
};

// Resource forks and Finder metadata that macOS adds to archives; not user files.
bool isAppleMetadata(const QList<QByteArray> &components)
{
    return components.first() == "__MACOSX" || components.last().startsWith("._");
}

// Judged on the name libarchive will write, not on any earlier listing: local and central
// names in a ZIP can differ.
QList<QByteArray> checkedComponents(const QByteArray &name)
{
    if (name.isEmpty())
        refuse(QStringLiteral("empty entry name"));
    if (name.startsWith('/'))
        refuse(u"absolute path " + QString::fromUtf8(name));
    QList<QByteArray> components = name.split('/');
    if (components.size() > 1 && components.last().isEmpty())
        components.removeLast(); // "folder/"
    for (const QByteArray &component : components) {
        if (component.isEmpty() || component == "." || component == "..")
            refuse(u"unsafe path " + QString::fromUtf8(name));
        if (component.size() > kNameMax)
            refuse(u"name too long in " + QString::fromUtf8(name));
    }
    return components;
}

quint32 le16(const char *p)
{
    return quint8(p[0]) | quint32(quint8(p[1])) << 8;
}
quint32 le32(const char *p)
{
    return le16(p) | le16(p + 2) << 16;
}
quint64 le64(const char *p)
{
    return le32(p) | quint64(le32(p + 4)) << 32;
}

// libarchive turns fifos and sockets into regular files and cuts names at a NUL, so read the
// central directory ourselves for what it hides, and keep each name's CRC-32 for the check
// after extraction. An unreadable directory is left to libarchive.
QHash<QByteArray, quint32> scanCentralDirectory(const QString &path)
{
    QHash<QByteArray, quint32> crcs;
    QList<QByteArray> twice;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return crcs;
    const qint64 size = file.size();
    const qint64 tailSize = qMin<qint64>(size, 22 + 65535);
    if (!file.seek(size - tailSize))
        return crcs;
    const QByteArray tail = file.read(tailSize);
    qsizetype eocd = tail.size() - 22;
    while (eocd >= 0 && le32(tail.constData() + eocd) != 0x06054b50)
        --eocd;
    if (eocd < 0)
        return crcs;
    quint64 directorySize = le32(tail.constData() + eocd + 12);
    qint64 directoryEnd = size - tailSize + eocd;
    if (directorySize == 0xffffffff && eocd >= 20 &&
        le32(tail.constData() + eocd - 20) == 0x07064b50) {
        const qint64 zip64At = qint64(le64(tail.constData() + eocd - 12));
        if (!file.seek(zip64At))
            return crcs;
        const QByteArray record = file.read(56);
        if (record.size() < 56 || le32(record.constData()) != 0x06064b50)
            return crcs;
        directorySize = le64(record.constData() + 40);
        directoryEnd = zip64At;
    }
    if (directorySize > quint64(directoryEnd) || directorySize > kMaxCentralDirectory)
        refuse(QStringLiteral("central directory too large"));
    if (!file.seek(directoryEnd - qint64(directorySize)))
        return crcs;
    const QByteArray directory = file.read(qint64(directorySize));
    for (qsizetype at = 0; at + 46 <= directory.size();) {
        const char *header = directory.constData() + at;
        if (le32(header) != 0x02014b50)
            return crcs;
        const qsizetype nameLength = le16(header + 28);
        const qsizetype next = at + 46 + nameLength + le16(header + 30) + le16(header + 32);
        if (next > directory.size())
            return crcs;
        const QByteArray name = directory.mid(at + 46, nameLength);
        if (name.contains('\0'))
            refuse(u"NUL in name " + QString::fromUtf8(name.left(name.indexOf('\0'))));
        const bool unixMode = (le16(header + 4) >> 8) == 3;
        const quint32 type = (le32(header + 38) >> 16) & 0170000;
        if (unixMode && type != 0 && type != 0100000 && type != 0040000)
            refuse(u"not a regular file or folder: " + QString::fromUtf8(name));
        // A name listed twice has no single CRC; the duplicate is refused on extraction.
        if (crcs.contains(name))
            twice.append(name);
        crcs.insert(name, le32(header + 16));
        at = next;
    }
    for (const QByteArray &name : twice)
        crcs.remove(name);
    return crcs;
}

void checkStop(const std::stop_token &stop)
{
    if (stop.stop_requested())
        throw Cancelled();
}

void extractInto(const QString &archivePath, const QString &tempFolder, qint64 byteBudget,
                 const std::stop_token &stop)
{
    ReadArchive reader;
    DiskWriter writer;
    if (!reader.a || !writer.a)
        refuse(QStringLiteral("out of memory"));
    // ZIP only: no other format's parser is reachable from a downloaded file.
    archive_read_support_format_zip(reader.a);
    archive_write_disk_set_options(writer.a, kWriteFlags);
    if (archive_read_open_filename(reader.a, QFile::encodeName(archivePath).constData(),
                                   64 * 1024) != ARCHIVE_OK)
        refuse(archiveErrorText(reader.a));
    const QHash<QByteArray, quint32> crcs = scanCentralDirectory(archivePath);

    const QByteArray prefix = QFile::encodeName(tempFolder) + '/';
    qint64 written = 0;
    // NO_OVERWRITE quietly keeps the first of two equal names; a duplicate is refused instead.
    QHash<QByteArray, bool> seen; // name -> is a folder
    for (;;) {
        checkStop(stop);
        archive_entry *entry = nullptr;
        const int header = archive_read_next_header(reader.a, &entry);
        if (header == ARCHIVE_EOF)
            break;
        // A warning is a failure too: libarchive reports bad checksums and failed writes as
        // warnings, and "unzipped" must mean every byte arrived.
        if (header != ARCHIVE_OK)
            refuse(archiveErrorText(reader.a));

        const char *rawName = archive_entry_pathname(entry);
        if (!rawName)
            refuse(QStringLiteral("entry name not representable in UTF-8"));
        const QByteArray listedName(rawName);
        // Control and bidirectional-override characters are dropped from what lands on disk.
        const QByteArray name = withoutControlCharacters(QString::fromUtf8(listedName)).toUtf8();
        const QList<QByteArray> components = checkedComponents(name);
        if (isAppleMetadata(components))
            continue;

        const auto type = archive_entry_filetype(entry);
        if (archive_entry_hardlink(entry) || (type != AE_IFREG && type != AE_IFDIR))
            refuse(u"not a regular file or folder: " + QString::fromUtf8(name));
        QByteArray key = name;
        if (key.endsWith('/'))
            key.chop(1);
        const auto earlier = seen.constFind(key);
        if (earlier != seen.cend() && !(type == AE_IFDIR && earlier.value()))
            refuse(u"duplicate name " + QString::fromUtf8(name));
        seen.insert(key, type == AE_IFDIR);

        // The disk writer would extend a file to the size the entry declares, whatever arrives:
        // a declared size counts against the budget, and the file gets only the bytes read.
        const qint64 declaredSize =
            archive_entry_size_is_set(entry) ? archive_entry_size(entry) : -1;
        if (type == AE_IFREG && declaredSize > byteBudget - written)
            refuse(QStringLiteral("more bytes than the budget of %1").arg(byteBudget));
        archive_entry_unset_size(entry);

        // Keep rwx bits only (no setuid, setgid, sticky); we must be able to read and remove
        // what we wrote.
        const mode_t perm = archive_entry_perm(entry) & 0777;
        archive_entry_set_perm(entry, perm | (type == AE_IFDIR ? 0700 : 0600));
        const QByteArray fullPath = prefix + name;
        archive_entry_set_pathname(entry, fullPath.constData());

        if (archive_write_header(writer.a, entry) != ARCHIVE_OK)
            refuse(QString::fromUtf8(name) + u": " + archiveErrorText(writer.a));

        if (type == AE_IFREG) {
            // Our own CRC over what was written, against the central directory's: a reader
            // that only warns about a mismatch must not let wrong bytes through.
            uLong crc = crc32(0L, Z_NULL, 0);
            qint64 expectedOffset = 0;
            for (int block = 0;; ++block) {
                const void *data = nullptr;
                size_t size = 0;
                la_int64_t offset = 0;
                const int read = archive_read_data_block(reader.a, &data, &size, &offset);
                if (read == ARCHIVE_EOF)
                    break;
                if (read != ARCHIVE_OK)
                    refuse(QString::fromUtf8(name) + u": " + archiveErrorText(reader.a));
                if (offset != expectedOffset)
                    refuse(QString::fromUtf8(name) + u": data out of order");
                expectedOffset = offset + qint64(size);
                written += qint64(size);
                if (written > byteBudget || expectedOffset > byteBudget)
                    refuse(QStringLiteral("more bytes than the budget of %1").arg(byteBudget));
                if (size > 0) // zlib starts over when handed no buffer
                    crc = crc32(crc, static_cast<const Bytef *>(data), uInt(size));
                // Anything but OK is a failed or short write (both come back as warnings).
                const la_ssize_t put = archive_write_data_block(writer.a, data, size, offset);
                if (put != ARCHIVE_OK)
                    refuse(QString::fromUtf8(name) + u": " + archiveErrorText(writer.a));
                if (block % 64 == 63)
                    checkStop(stop);
            }
            if (declaredSize >= 0 && expectedOffset != declaredSize)
                refuse(QString::fromUtf8(name) + u": size differs from the archive's listing");
            const auto listed = crcs.constFind(listedName);
            if (listed != crcs.cend() && listed.value() != quint32(crc))
                refuse(QString::fromUtf8(name) + u": checksum mismatch");
        }
        if (archive_write_finish_entry(writer.a) != ARCHIVE_OK)
            refuse(QString::fromUtf8(name) + u": " + archiveErrorText(writer.a));
    }
    // Applies the deferred folder times and modes.
    if (archive_write_close(writer.a) != ARCHIVE_OK)
        refuse(archiveErrorText(writer.a));
}

void removeTree(const QString &path)
{
    std::error_code ec; // remove_all does not follow symlinks
    std::filesystem::remove_all(QFile::encodeName(path).toStdString(), ec);
}

QString withoutExtension(const QString &fileName)
{
    const qsizetype dot = fileName.lastIndexOf(u'.');
    return dot > 0 ? fileName.left(dot) : fileName;
}

// Trip/Trip/... -> Trip/...: the archive carried its own top folder.
QString collapseDoubledFolder(const QString &target)
{
    const QFileInfo targetInfo(target);
    const QDir targetDir(target);
    const QStringList entries =
        targetDir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    if (entries.size() != 1 || entries.first() != targetInfo.fileName())
        return target;

    // Only a folder doubles the folder: a lone file of the same name stays inside it.
    const QString inner = targetDir.filePath(entries.first());
    const QFileInfo innerInfo(inner);
    if (!innerInfo.isDir() || innerInfo.isSymLink())
        return target;
    const QString hop =
        targetInfo.dir().filePath(kTempPrefix + QUuid::createUuid().toString(QUuid::WithoutBraces));
    if (renameNoReplace(inner, hop) != 0)
        return target;
    if (::rmdir(QFile::encodeName(target).constData()) != 0) {
        renameNoReplace(hop, inner);
        return target;
    }
    for (int attempt = 0; attempt < 1000; ++attempt) {
        // Someone may take the freed name meanwhile; then the next free one will do.
        const QString final =
            attempt == 0 ? target : uniquePath(targetInfo.path(), targetInfo.fileName());
        const int error = renameNoReplace(hop, final);
        if (error == 0)
            return final;
        if (error != EEXIST)
            break;
    }
    qCWarning(lcUnzip) << "left extracted folder under" << hop;
    return hop;
}

} // namespace

QString unzipInPlace(const QString &archive, qint64 byteBudget, std::stop_token stop)
{
    ensureUtf8Ctype();
    const QFileInfo archiveInfo(archive);
    const QString archiveName = archiveInfo.fileName();
    const QString folder = archiveInfo.absolutePath();
    const QString baseName = withoutExtension(archiveName);

    const QString temp =
        QDir(folder).filePath(kTempPrefix + QUuid::createUuid().toString(QUuid::WithoutBraces));
    QString target;
    try {
        if (::mkdir(QFile::encodeName(temp).constData(), 0777) != 0)
            refuse(u"cannot create the temporary folder: " + systemErrorText(errno));
        // libarchive's symlink check walks the whole path, so give it one without symlinks.
        const QString realTemp = QFileInfo(temp).canonicalFilePath();
        if (realTemp.isEmpty())
            refuse(QStringLiteral("temporary folder vanished"));
        extractInto(archive, realTemp, byteBudget, stop);
        checkStop(stop);
        // A full disk may only show when the written pages reach it: ask before the archive,
        // the only other copy, is deleted.
        const int folderFd =
            ::open(QFile::encodeName(realTemp).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (folderFd < 0 || ::syncfs(folderFd) != 0) {
            const int error = errno;
            if (folderFd >= 0)
                ::close(folderFd);
            refuse(u"cannot flush the extracted files: " + systemErrorText(error));
        }
        ::close(folderFd);

        for (int attempt = 0;; ++attempt) {
            target = uniquePath(folder, baseName);
            const int error = renameNoReplace(temp, target);
            if (error == 0)
                break;
            if (error != EEXIST || attempt >= 1000)
                refuse(u"cannot name the folder: " + systemErrorText(error));
        }
    } catch (const Refused &refused) {
        removeTree(temp);
        qCWarning(lcUnzip).noquote() << "refused" << archiveName << "-" << refused.reason;
        throw AppError(u"Couldn't unzip " + archiveName + u'.');
    } catch (...) {
        removeTree(temp);
        throw;
    }

    ::unlink(QFile::encodeName(archive).constData());
    return collapseDoubledFolder(target);
}

} // namespace lofthaven
