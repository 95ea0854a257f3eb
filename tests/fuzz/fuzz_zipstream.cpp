// A ZIP stream round trip: any small plan streams to exactly the predicted number of bytes,
// and libarchive's seekable and streaming ZIP readers both get back every entry's name (up to
// Unicode composition), bytes and time.

#include "fuzzcheck.h"
#include "send/zipstream.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <archive.h>
#include <archive_entry.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <ctime>

using namespace lofthaven;

namespace {

struct Entry
{
    QByteArray name; // UTF-8, as stored
    QByteArray bytes;
    qint64 seconds; // the DOS time the entry should carry, seconds since the epoch (UTC)
};

// Names as a plan makes them: "/"-separated, no empty, "." or ".." components, no NUL.
// Backslashes are left out: the header says "made by MS-DOS", so readers take a backslash
// in a name for a folder separator (an open question for names that hold one).
QString planName(const std::string &raw, int index)
{
    QStringList components;
    for (const QString &c : QString::fromUtf8(raw.data(), qsizetype(raw.size()))
                                .remove(QChar(0))
                                .remove(u'\\')
                                .split(u'/', Qt::SkipEmptyParts)) {
        if (c != u"." && c != u"..")
            components.append(c);
    }
    return components.isEmpty() ? QStringLiteral("f%1").arg(index) : components.join(u'/');
}

// DOS times: two-second steps, years before 1980 counted as 1980 with the rest kept.
qint64 dosSeconds(const QDateTime &moment)
{
    const QDate date = moment.date();
    const QTime time = moment.time();
    return QDateTime(QDate(std::max(date.year(), 1980), date.month(), date.day()),
                     QTime(time.hour(), time.minute(), time.second() / 2 * 2), Qt::UTC)
        .toSecsSinceEpoch();
}

void readBack(const QByteArray &zip, const QList<Entry> &expected, bool streaming)
{
    archive *a = archive_read_new();
    if (streaming)
        archive_read_support_format_zip_streamable(a);
    else
        archive_read_support_format_zip_seekable(a);
    FUZZ_CHECK(archive_read_open_memory(a, zip.constData(), size_t(zip.size())) == ARCHIVE_OK);
    archive_entry *header = nullptr;
    qsizetype index = 0;
    int status;
    while ((status = archive_read_next_header(a, &header)) == ARCHIVE_OK) {
        FUZZ_CHECK(index < expected.size());
        const Entry &entry = expected.at(index++);
        // libarchive hands UTF-8 names back composed (NFC): "Y" + U+0307 comes back as U+1E8E.
        // The archive holds the name as the plan gave it; canonically equal is what counts.
        const char *name = archive_entry_pathname_utf8(header);
        FUZZ_CHECK(name &&
                   QString::fromUtf8(name).normalized(QString::NormalizationForm_C) ==
                       QString::fromUtf8(entry.name).normalized(QString::NormalizationForm_C));
        FUZZ_CHECK(archive_entry_mtime(header) == entry.seconds);
        QByteArray bytes;
        char buffer[4096];
        la_ssize_t got;
        while ((got = archive_read_data(a, buffer, sizeof buffer)) > 0)
            bytes.append(buffer, qsizetype(got));
        FUZZ_CHECK(got == 0);
        FUZZ_CHECK(bytes == entry.bytes);
    }
    FUZZ_CHECK(status == ARCHIVE_EOF);
    FUZZ_CHECK(index == expected.size());
    archive_read_free(a);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // DOS times are local times: pin the zone so expected times are plain arithmetic, and
    // let libarchive hand out UTF-8 names.
    setenv("TZ", "UTC", 1);
    tzset();
    std::setlocale(LC_CTYPE, "C.UTF-8");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir folder;
    FuzzedDataProvider input(data, size);
    QList<SendItem> items;
    QList<Entry> expected;
    // A plan holds at least one file.
    const int count = input.ConsumeIntegralInRange(1, 5);
    for (int i = 0; i < count; ++i) {
        const QString name = planName(input.ConsumeRandomLengthString(64), i);
        const std::vector<uint8_t> raw =
            input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 3 * 1024));
        const QByteArray bytes(reinterpret_cast<const char *>(raw.data()), qsizetype(raw.size()));
        // From before 1970 to the end of the last year a DOS date holds (2107).
        const qint64 seconds = input.ConsumeIntegralInRange<qint64>(-100000000, 4354819199);
        const QString path = folder.filePath(QString::number(i));
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        FUZZ_CHECK(file.write(bytes) == bytes.size());
        file.close();
        const QDateTime mtime = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
        items.append(SendItem{path, name, bytes.size(), mtime});
        expected.append(Entry{name.toUtf8(), bytes, dosSeconds(mtime)});
    }

    ZipStream stream(items);
    QByteArray zip;
    while (std::optional<QByteArray> chunk = stream.next())
        zip += *chunk;
    FUZZ_CHECK(zip.size() == ZipStream::predictedSize(items));
    readBack(zip, expected, false);
    readBack(zip, expected, true);
    return 0;
}
