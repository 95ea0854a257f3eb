#include "api/apperror.h"
#include "send/sendplan.h"
#include "send/zipstream.h"
#include "testdata.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <ctime>
#include <zlib.h>

using namespace lofthaven;

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

quint16 u16At(const QByteArray &bytes, qsizetype at)
{
    return qFromLittleEndian<quint16>(bytes.constData() + at);
}

quint32 u32At(const QByteArray &bytes, qsizetype at)
{
    return qFromLittleEndian<quint32>(bytes.constData() + at);
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
    void predictedSize_data();
    void predictedSize();
    void archiveReadsBack_data();
    void archiveReadsBack();
    void layoutOfOneEntry();
    void dataIsSlicedInMebibytes();
    void emptyFileHasNoDataChunk();
    void zeroItemsGiveOnlyTheEndRecord();
    void shrunkFileFails();
    void grownFileIsCutAtPlannedSize();
    void vanishedFileFails();
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

void TestZipStream::predictedSize_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QList<qint64>>("sizes");
    QTest::addColumn<qint64>("expected");
    QTest::newRow("nothing") << QStringList{} << QList<qint64>{} << qint64(22);
    QTest::newRow("self-test Trip") << QStringList{"Trip/a.bin", "Trip/Sub/bé ✓.bin"}
                                    << QList<qint64>{3000, 5123} << qint64(8389);
    QTest::newRow("empty file") << QStringList{"F/e"} << QList<qint64>{0} << qint64(22 + 92 + 6);
}

void TestZipStream::predictedSize()
{
    QFETCH(QStringList, names);
    QFETCH(QList<qint64>, sizes);
    QFETCH(qint64, expected);
    QList<SendItem> items;
    for (qsizetype i = 0; i < names.size(); ++i)
        items.append(SendItem{QString(), names.at(i), sizes.at(i), QDateTime()});
    QCOMPARE(ZipStream::predictedSize(items), expected);
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
        const QByteArray bytes = lofthaven::testing::randomBytes(sizes.at(i), quint32(i + 7));
        QVERIFY(lofthaven::testing::writeFile(dir.filePath(u"F/" + files.at(i)), bytes));
        contents.insert(u"F/" + files.at(i), bytes);
    }
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
    ZipStream stream(plan.items);
    const QByteArray archive = streamAll(stream);
    QCOMPARE(archive.size(), plan.size);
    const QString archivePath = dir.filePath(QStringLiteral("out.zip"));
    QVERIFY(lofthaven::testing::writeFile(archivePath, archive));

    // Reader 1: Info-ZIP checks CRCs and data descriptors.
    QProcess unzip;
    unzip.start(QStringLiteral("/usr/bin/unzip"), {QStringLiteral("-tq"), archivePath});
    QVERIFY2(unzip.waitForFinished(), qPrintable(unzip.errorString()));
    QVERIFY2(unzip.exitStatus() == QProcess::NormalExit && unzip.exitCode() == 0,
             unzip.readAllStandardOutput().constData());

    // Reader 2: Python's zipfile reads flags, method and sizes and extracts.
    const QString extracted = dir.filePath(QStringLiteral("x"));
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
        QCOMPARE(lofthaven::testing::readFile(extracted + u'/' + it.key()), it.value());
}

void TestZipStream::layoutOfOneEntry()
{
    QTemporaryDir dir;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/bé")), "hello"));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    const QByteArray a = streamAll(stream, &sizes);
    const QByteArray name = QStringLiteral("F/bé").toUtf8(); // 5 bytes
    QCOMPARE(sizes, (QList<qsizetype>{30 + 5, 5, 16, 46 + 5, 22}));
    const quint32 crc = quint32(crc32(0, reinterpret_cast<const Bytef *>("hello"), 5));
    const ZipStream::DosTime when = ZipStream::dosTimeDate(plan.items.first().mtime);
    // Local header: zero CRC and sizes, flags 0x0808, stored.
    QCOMPARE(u32At(a, 0), 0x04034B50u);
    QCOMPARE(u16At(a, 4), 20);
    QCOMPARE(u16At(a, 6), 0x0808);
    QCOMPARE(u16At(a, 8), 0);
    QCOMPARE(u16At(a, 10), when.time);
    QCOMPARE(u16At(a, 12), when.date);
    QCOMPARE(u32At(a, 14), 0u);
    QCOMPARE(u32At(a, 18), 0u);
    QCOMPARE(u32At(a, 22), 0u);
    QCOMPARE(u16At(a, 26), 5);
    QCOMPARE(u16At(a, 28), 0);
    QCOMPARE(a.mid(30, 5), name);
    QCOMPARE(a.mid(35, 5), QByteArray("hello"));
    // Data descriptor.
    QCOMPARE(u32At(a, 40), 0x08074B50u);
    QCOMPARE(u32At(a, 44), crc);
    QCOMPARE(u32At(a, 48), 5u);
    QCOMPARE(u32At(a, 52), 5u);
    // Central record.
    const qsizetype c = 56;
    QCOMPARE(u32At(a, c), 0x02014B50u);
    QCOMPARE(u16At(a, c + 4), 20);
    QCOMPARE(u16At(a, c + 6), 20);
    QCOMPARE(u16At(a, c + 8), 0x0808);
    QCOMPARE(u16At(a, c + 10), 0);
    QCOMPARE(u16At(a, c + 12), when.time);
    QCOMPARE(u16At(a, c + 14), when.date);
    QCOMPARE(u32At(a, c + 16), crc);
    QCOMPARE(u32At(a, c + 20), 5u);
    QCOMPARE(u32At(a, c + 24), 5u);
    QCOMPARE(u16At(a, c + 28), 5);
    for (int field = 30; field < 42; field += 2)
        QCOMPARE(u16At(a, c + field), 0);
    QCOMPARE(u32At(a, c + 42), 0u);
    QCOMPARE(a.mid(c + 46, 5), name);
    // End record.
    const qsizetype e = c + 51;
    QCOMPARE(u32At(a, e), 0x06054B50u);
    QCOMPARE(u16At(a, e + 4), 0);
    QCOMPARE(u16At(a, e + 6), 0);
    QCOMPARE(u16At(a, e + 8), 1);
    QCOMPARE(u16At(a, e + 10), 1);
    QCOMPARE(u32At(a, e + 12), 51u);
    QCOMPARE(u32At(a, e + 16), quint32(c));
    QCOMPARE(u16At(a, e + 20), 0);
    QCOMPARE(a.size(), e + 22);
}

void TestZipStream::dataIsSlicedInMebibytes()
{
    QTemporaryDir dir;
    QVERIFY(
        lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/x")), lofthaven::testing::randomBytes(2500000)));
    QVERIFY(
        lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/y")), lofthaven::testing::randomBytes(1048576)));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    QCOMPARE(streamAll(stream, &sizes).size(), plan.size);
    QCOMPARE(sizes,
             (QList<qsizetype>{33, 1048576, 1048576, 402848, 16, 33, 1048576, 16, 49, 49, 22}));
}

void TestZipStream::emptyFileHasNoDataChunk()
{
    QTemporaryDir dir;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/e")), {}));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
    ZipStream stream(plan.items);
    QList<qsizetype> sizes;
    const QByteArray a = streamAll(stream, &sizes);
    QCOMPARE(sizes, (QList<qsizetype>{33, 16, 49, 22}));
    QCOMPARE(a.mid(33, 16), QByteArray::fromHex("504b0708000000000000000000000000"));
}

void TestZipStream::zeroItemsGiveOnlyTheEndRecord()
{
    ZipStream stream({});
    std::optional<QByteArray> only = stream.next();
    QVERIFY(only);
    QCOMPARE(*only, QByteArray::fromHex("504b0506") + QByteArray(18, '\0'));
    QVERIFY(!stream.next());
    QVERIFY(!stream.next());
}

void TestZipStream::shrunkFileFails()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("Trip/Sub/bé ✓.bin"));
    QVERIFY(lofthaven::testing::writeFile(path, lofthaven::testing::randomBytes(1500000)));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("Trip"))});
    QVERIFY(QFile::resize(path, 1048576 + 10));
    ZipStream stream(plan.items);
    QCOMPARE(stream.next()->size(), 30 + 20);
    QCOMPARE(stream.next()->size(), 1048576);
    QCOMPARE(stream.next()->size(), 10);
    try {
        stream.next();
        QFAIL("a shrunk file must fail the stream");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), QStringLiteral("Trip/Sub/bé ✓.bin changed while sending (it got "
                                             "smaller)."));
    }
}

void TestZipStream::grownFileIsCutAtPlannedSize()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("F/grows"));
    const QByteArray planned = lofthaven::testing::randomBytes(3000);
    QVERIFY(lofthaven::testing::writeFile(path, planned));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
    QVERIFY(lofthaven::testing::writeFile(path, planned + QByteArray(5000, 'z')));
    ZipStream stream(plan.items);
    const QByteArray archive = streamAll(stream);
    QCOMPARE(archive.size(), plan.size);
    QCOMPARE(archive.mid(30 + 7, 3000), planned);
    const quint32 crc = quint32(
        crc32(0, reinterpret_cast<const Bytef *>(planned.constData()), uInt(planned.size())));
    QCOMPARE(u32At(archive, 30 + 7 + 3000 + 4), crc);
}

void TestZipStream::vanishedFileFails()
{
    QTemporaryDir dir;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("Trip/a.txt")), "12345"));
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("Trip/b.txt")), "6"));
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("Trip"))});
    QVERIFY(QFile::remove(dir.filePath(QStringLiteral("Trip/b.txt"))));
    ZipStream stream(plan.items);
    for (int i = 0; i < 3; ++i)
        QVERIFY(stream.next());
    try {
        stream.next();
        QFAIL("a vanished file must fail the stream");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), QStringLiteral("Can't read Trip/b.txt: No such file or directory"));
    }
}

QTEST_GUILESS_MAIN(TestZipStream)
#include "tst_zipstream.moc"
