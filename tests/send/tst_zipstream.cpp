#include "api/apperror.h"
#include "send/sendplan.h"
#include "send/zipstream.h"
#include "testdata.h"

#include <QDataStream>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <ctime>
#include <zlib.h>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

namespace {

QByteArray streamAll(ZipStream &stream, QList<qsizetype> *chunkSizes = nullptr)
{
    QByteArray all;
    while (std::optional<QByteArray> chunk = stream.next()) {
        if (chunk->isEmpty())
            return QByteArray("<empty chunk>");
        if (chunkSizes)
            chunkSizes->append(chunk->size());
        all += *chunk;
    }
    return all;
}

quint32 crcOf(const QByteArray &bytes)
{
    return quint32(
        crc32(0, reinterpret_cast<const Bytef *>(bytes.constData()), uInt(bytes.size())));
}

// A whole archive of one stored entry, field by field as the format lays it out.
QByteArray oneEntryArchive(const QByteArray &name, const QByteArray &data, ZipStream::DosTime when)
{
    const quint16 nameSize = quint16(name.size());
    const quint32 size = quint32(data.size());
    QByteArray archive;
    QDataStream out(&archive, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    // Local header: version 20, flags 0x0808 (descriptor follows, UTF-8 name), stored; CRC and
    // sizes zero, they follow in the data descriptor.
    out << quint32(0x04034B50) << quint16(20) << quint16(0x0808) << quint16(0) << when.time
        << when.date << quint32(0) << quint32(0) << quint32(0) << nameSize << quint16(0);
    out.writeRawData(name.constData(), nameSize);
    out.writeRawData(data.constData(), int(size));
    out << quint32(0x08074B50) << crcOf(data) << size << size;
    // Central record: made by and needs 20; no extra, comment or attributes; local header at 0.
    const quint32 central = quint32(archive.size());
    out << quint32(0x02014B50) << quint16(20) << quint16(20) << quint16(0x0808) << quint16(0)
        << when.time << when.date << crcOf(data) << size << size << nameSize << quint16(0)
        << quint16(0) << quint16(0) << quint16(0) << quint32(0) << quint32(0);
    out.writeRawData(name.constData(), nameSize);
    // End record: disk 0, one entry, the central directory's size and offset, no comment.
    const quint32 centralSize = quint32(archive.size()) - central;
    out << quint32(0x06054B50) << quint16(0) << quint16(0) << quint16(1) << quint16(1)
        << centralSize << central << quint16(0);
    return archive;
}

// Python's zipfile as a second, independent reader: checks every member's CRC, prints
// "name|flags|method|size" per member and extracts into the given folder.
const char *kPythonReader = R"(
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    bad = z.testzip()
    if bad is not None:
        print('BAD', bad); sys.exit(2)
    for i in z.infolist():
        print('%s|%d|%d|%d' % (i.filename, i.flag_bits, i.compress_type, i.file_size))
    z.extractall(sys.argv[2])
)";

} // namespace

class TestZipStream : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void dosTimeDate_data();
    void dosTimeDate();
    void archiveReadsBack_data();
    void archiveReadsBack();
    void layoutOfOneEntry_data();
    void layoutOfOneEntry();
    void dataIsSlicedInMebibytes();
    void zeroItemsGiveOnlyTheEndRecord();
    void changedFileFails_data();
    void changedFileFails();
    void grownFileIsCutAtPlannedSize();
};

void TestZipStream::initTestCase()
{
    // A fixed zone three hours east of UTC, so "local time" differs from UTC in every run.
    qputenv("TZ", "XST-3");
    tzset();
}

void TestZipStream::dosTimeDate_data()
{
    QTest::addColumn<QDateTime>("moment");
    QTest::addColumn<int>("time");
    QTest::addColumn<int>("date");
    auto local = [](int y, int mo, int d, int h, int mi, int s) {
        return QDateTime(QDate(y, mo, d), QTime(h, mi, s), Qt::LocalTime);
    };
    QTest::newRow("ordinary") << local(2024, 1, 31, 9, 15, 42) << (9 << 11 | 15 << 5 | 21)
                              << (44 << 9 | 1 << 5 | 31);
    QTest::newRow("odd second halves down")
        << local(2024, 1, 31, 23, 59, 59) << (23 << 11 | 59 << 5 | 29) << (44 << 9 | 1 << 5 | 31);
    QTest::newRow("1975 clamps the year only")
        << local(1975, 6, 15, 12, 30, 10) << (12 << 11 | 30 << 5 | 5) << (0 << 9 | 6 << 5 | 15);
    QTest::newRow("epoch of the format") << local(1980, 1, 1, 0, 0, 0) << 0 << (1 << 5 | 1);
    QTest::newRow("no upper clamp")
        << local(2107, 12, 31, 1, 2, 4) << (1 << 11 | 2 << 5 | 2) << (127 << 9 | 12 << 5 | 31);
    QTest::newRow("UTC instant shown in local time")
        << QDateTime(QDate(2024, 1, 31), QTime(23, 30, 0), Qt::UTC) << (2 << 11 | 30 << 5)
        << (44 << 9 | 2 << 5 | 1);
    QTest::newRow("no date: month and day 1") << QDateTime() << 0 << (1 << 5 | 1);
}

void TestZipStream::dosTimeDate()
{
    QFETCH(QDateTime, moment);
    QFETCH(int, time);
    QFETCH(int, date);
    const ZipStream::DosTime got = ZipStream::dosTimeDate(moment);
    QCOMPARE(int(got.time), time);
    QCOMPARE(int(got.date), date);
}

// files: "relative/name:size" with seeded random bytes; the folder "F" is planned.
void TestZipStream::archiveReadsBack_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QList<qint64>>("sizes");
    QTest::newRow("trip") << QStringList{"a.txt", "Sub/bé ✓.bin"} << QList<qint64>{5, 5123};
    QTest::newRow("empty files between")
        << QStringList{"a", "b", "c"} << QList<qint64>{0, 70000, 0};
    QTest::newRow("larger than one read")
        << QStringList{"big.bin", "small"} << QList<qint64>{2500000, 1};
    QTest::newRow("many small, deep")
        << QStringList{"1/2/3/4/x", "1/y", "z", "Ünïcödé/名前.txt", "with space/.hidden"}
        << QList<qint64>{1, 2, 3, 4, 5};
}

void TestZipStream::archiveReadsBack()
{
    QFETCH(QStringList, files);
    QFETCH(QList<qint64>, sizes);
    QTemporaryDir dir;
    QHash<QString, QByteArray> contents;
    for (qsizetype i = 0; i < files.size(); ++i) {
        const QByteArray bytes = randomBytes(sizes.at(i), quint32(i + 7));
        QVERIFY(writeFile(dir.filePath(u"F/" + files.at(i)), bytes));
        contents.insert(u"F/" + files.at(i), bytes);
    }
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    ZipStream stream(plan.items);
    const QByteArray archive = streamAll(stream);
    QCOMPARE(archive.size(), plan.size);
    const QString archivePath = dir.filePath(u"out.zip"_s);
    QVERIFY(writeFile(archivePath, archive));

    // Reader 1: Info-ZIP checks CRCs and data descriptors.
    QProcess unzip;
    unzip.start(QStringLiteral("/usr/bin/unzip"), {QStringLiteral("-tq"), archivePath});
    QVERIFY2(unzip.waitForFinished(), qPrintable(unzip.errorString()));
    QVERIFY2(unzip.exitStatus() == QProcess::NormalExit && unzip.exitCode() == 0,
             unzip.readAllStandardOutput().constData());

    // Reader 2: Python's zipfile reads flags, method and sizes and extracts.
    const QString extracted = dir.filePath(u"x"_s);
    QProcess python;
    python.start(QStringLiteral("python3"),
                 {QStringLiteral("-c"), QString::fromUtf8(kPythonReader), archivePath, extracted});
    QVERIFY2(python.waitForFinished(), qPrintable(python.errorString()));
    const QString listing = QString::fromUtf8(python.readAllStandardOutput());
    QVERIFY2(python.exitCode() == 0, qPrintable(listing + python.readAllStandardError()));
    QStringList expectedListing;
    for (const SendItem &item : plan.items)
        expectedListing.append(item.name + u"|2056|0|" + QString::number(item.size));
    QCOMPARE(listing.split(u'\n', Qt::SkipEmptyParts), expectedListing);
    for (auto it = contents.cbegin(); it != contents.cend(); ++it)
        QCOMPARE(readFile(extracted + u'/' + it.key()), it.value());
}

void TestZipStream::layoutOfOneEntry_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QList<qsizetype>>("chunks");
    QTest::newRow("UTF-8 name") << u"F/bé"_s << QByteArray("hello")
                                << QList<qsizetype>{30 + 5, 5, 16, 46 + 5, 22};
    QTest::newRow("empty file has no data chunk")
        << u"F/e"_s << QByteArray() << QList<qsizetype>{33, 16, 49, 22};
}

void TestZipStream::layoutOfOneEntry()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, data);
    QFETCH(QList<qsizetype>, chunks);
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(name), data));
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    const QByteArray archive = streamAll(stream, &sizes);
    QCOMPARE(sizes, chunks);
    QCOMPARE(archive.size(), plan.size);
    const ZipStream::DosTime when = ZipStream::dosTimeDate(plan.items.first().mtime);
    QCOMPARE(archive, oneEntryArchive(name.toUtf8(), data, when));
}

void TestZipStream::dataIsSlicedInMebibytes()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(u"F/x"_s), randomBytes(2500000)));
    QVERIFY(writeFile(dir.filePath(u"F/y"_s), randomBytes(1048576)));
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    QCOMPARE(streamAll(stream, &sizes).size(), plan.size);
    QCOMPARE(sizes,
             (QList<qsizetype>{33, 1048576, 1048576, 402848, 16, 33, 1048576, 16, 49, 49, 22}));
}

void TestZipStream::zeroItemsGiveOnlyTheEndRecord()
{
    QCOMPARE(ZipStream::predictedSize({}), 22);
    ZipStream stream({});
    std::optional<QByteArray> only = stream.next();
    QVERIFY(only);
    QCOMPARE(*only, QByteArray::fromHex("504b0506") + QByteArray(18, '\0'));
    QVERIFY(!stream.next());
    QVERIFY(!stream.next());
}

// A file that changes between planning and streaming fails the stream once it is reached.
void TestZipStream::changedFileFails_data()
{
    QTest::addColumn<qint64>("newSize"); // -1: deleted
    QTest::addColumn<QList<qsizetype>>("chunksBefore");
    QTest::addColumn<QString>("error");
    QTest::newRow("shrunk") << qint64(1048576 + 10)
                            << QList<qsizetype>{30 + 10, 5, 16, 30 + 20, 1048576, 10}
                            << u"Trip/Sub/bé ✓.bin changed while sending (it got smaller)."_s;
    QTest::newRow("vanished") << qint64(-1) << QList<qsizetype>{30 + 10, 5, 16}
                              << u"Can't read Trip/Sub/bé ✓.bin: No such file or directory"_s;
}

void TestZipStream::changedFileFails()
{
    QFETCH(qint64, newSize);
    QFETCH(QList<qsizetype>, chunksBefore);
    QFETCH(QString, error);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"Trip/Sub/bé ✓.bin"_s);
    QVERIFY(writeFile(dir.filePath(u"Trip/a.txt"_s), "12345"));
    QVERIFY(writeFile(path, randomBytes(1500000)));
    const SendPlan plan = SendPlan::make({dir.filePath(u"Trip"_s)});
    QVERIFY(newSize < 0 ? QFile::remove(path) : QFile::resize(path, newSize));
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    try {
        streamAll(stream, &sizes);
        QFAIL("a changed file must fail the stream");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), error);
    }
    QCOMPARE(sizes, chunksBefore);
}

void TestZipStream::grownFileIsCutAtPlannedSize()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"F/grows"_s);
    const QByteArray planned = randomBytes(3000);
    QVERIFY(writeFile(path, planned));
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    QVERIFY(writeFile(path, planned + QByteArray(5000, 'z')));
    ZipStream stream(plan.items);
    const QByteArray archive = streamAll(stream);
    QCOMPARE(archive.size(), plan.size);
    QCOMPARE(archive.mid(30 + 7, 3000), planned);
    QCOMPARE(qFromLittleEndian<quint32>(archive.constData() + 30 + 7 + 3000 + 4), crcOf(planned));
}

QTEST_GUILESS_MAIN(TestZipStream)
#include "tst_zipstream.moc"
