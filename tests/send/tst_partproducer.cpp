#include "api/apperror.h"
#include "send/partproducer.h"
#include "send/sendplan.h"
#include "send/zipstream.h"
#include "testdata.h"

#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

class TestPartProducer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void spilledParts_data();
    void spilledParts();
    void fileRanges_data();
    void fileRanges();
    void streamErrorsPassThrough();
    void spillFolderMustBeCreatable();
    void spillFileIsReplaced();
};

namespace {

QByteArray referenceArchive(const SendPlan &plan)
{
    ZipStream stream(plan.items);
    QByteArray all;
    while (std::optional<QByteArray> chunk = stream.next())
        all += *chunk;
    return all;
}

} // namespace

void TestPartProducer::spilledParts_data()
{
    QTest::addColumn<QList<qint64>>("fileSizes");
    QTest::addColumn<qint64>("partSize");
    QTest::addColumn<int>("expectedParts");
    // The self-test's Trip archive is 8,389 bytes.
    QTest::newRow("trip / 1000") << QList<qint64>{3000, 5123} << qint64(1000) << 9;
    QTest::newRow("trip / 4096") << QList<qint64>{3000, 5123} << qint64(4096) << 3;
    QTest::newRow("trip / 1 MiB, one part") << QList<qint64>{3000, 5123} << qint64(1048576) << 1;
    QTest::newRow("trip / exact size") << QList<qint64>{3000, 5123} << qint64(8389) << 1;
    QTest::newRow("trip / smaller than a header") << QList<qint64>{3000, 5123} << qint64(7) << 1199;
    // Parts that straddle 1 MiB data chunks carry the chunk's remainder over.
    QTest::newRow("carry across chunks")
        << QList<qint64>{2500000, 0, 1048576} << qint64(300007) << 12;
    QTest::newRow("part of two chunks exactly")
        << QList<qint64>{2 * 1048576} << qint64(1048576) << 3;
    // Spill files are written in 1 MiB blocks: parts of several blocks plus a remainder.
    QTest::newRow("parts of blocks and a remainder")
        << QList<qint64>{3000000, 17, 1048581} << qint64(2621447) << 2;
}

void TestPartProducer::spilledParts()
{
    QFETCH(QList<qint64>, fileSizes);
    QFETCH(qint64, partSize);
    QFETCH(int, expectedParts);
    QTemporaryDir dir;
    const QStringList names{"a.bin", "Sub/bé ✓.bin", "c"}; // the self-test's names come first
    for (qsizetype i = 0; i < fileSizes.size(); ++i)
        QVERIFY(writeFile(dir.filePath(u"Trip/" + names.at(i)),
                          randomBytes(fileSizes.at(i), quint32(i))));
    const SendPlan plan = SendPlan::make({dir.filePath(u"Trip"_s)});
    QVERIFY(plan.isZip);
    const QByteArray reference = referenceArchive(plan);
    QCOMPARE(reference.size(), plan.size);

    const QString spill = dir.filePath(u"spill/deeper"_s);
    PartProducer producer(plan, partSize, spill);
    QVERIFY(QFileInfo(spill).isDir());
    QByteArray joined;
    QStringList spilled;
    int number = 0;
    while (std::optional<PartPayload> part = producer.next(number + 1)) {
        ++number;
        QVERIFY(!producer.isFinished() || joined.size() + part->length == plan.size);
        QVERIFY(part->isSpilled());
        spilled.append(u"part-"_s + QString::number(number));
        QCOMPARE(part->path, spill + u'/' + spilled.last());
        const QByteArray bytes = readFile(part->path);
        QCOMPARE(bytes.size(), part->length);
        const qint64 expectedLength = std::min(partSize, plan.size - joined.size());
        QCOMPARE(part->length, expectedLength);
        joined += bytes;
        QVERIFY(number <= expectedParts);
    }
    QCOMPARE(number, expectedParts);
    QVERIFY(joined == reference);
    QVERIFY(producer.isFinished());
    // Asked again, it still has nothing and leaves nothing behind; spilled parts stay until the
    // caller removes the folder.
    QVERIFY(!producer.next(number + 2));
    spilled.sort();
    QCOMPARE(QDir(spill).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name), spilled);
}

void TestPartProducer::fileRanges_data()
{
    QTest::addColumn<qint64>("fileSize");
    QTest::addColumn<qint64>("partSize");
    QTest::addColumn<QList<qint64>>("offsets");
    QTest::addColumn<QList<qint64>>("lengths");
    QTest::newRow("exactly two parts")
        << qint64(2000) << qint64(1000) << QList<qint64>{0, 1000} << QList<qint64>{1000, 1000};
    QTest::newRow("short last part") << qint64(2001) << qint64(1000) << QList<qint64>{0, 1000, 2000}
                                     << QList<qint64>{1000, 1000, 1};
    QTest::newRow("part larger than file")
        << qint64(10) << qint64(1000) << QList<qint64>{0} << QList<qint64>{10};
}

void TestPartProducer::fileRanges()
{
    QFETCH(qint64, fileSize);
    QFETCH(qint64, partSize);
    QFETCH(QList<qint64>, offsets);
    QFETCH(QList<qint64>, lengths);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"movie.mp4"_s);
    const QByteArray bytes = randomBytes(fileSize);
    QVERIFY(writeFile(path, bytes));
    const SendPlan plan = SendPlan::make({path});
    QVERIFY(!plan.isZip);
    const QString spill = dir.filePath(u"spill"_s);
    PartProducer producer(plan, partSize, spill);
    QList<qint64> gotOffsets, gotLengths;
    QByteArray joined;
    for (int n = 1; std::optional<PartPayload> part = producer.next(n); ++n) {
        QVERIFY(!part->isSpilled());
        QCOMPARE(part->path, plan.items.first().path);
        gotOffsets.append(part->offset);
        gotLengths.append(part->length);
        joined += readFile(part->path).mid(part->offset, part->length);
    }
    QCOMPARE(gotOffsets, offsets);
    QCOMPARE(gotLengths, lengths);
    QVERIFY(joined == bytes);
    QVERIFY(producer.isFinished());
    QVERIFY(!producer.next(99));
    // A single file is never copied: no spill folder at all.
    QVERIFY(!QFileInfo::exists(spill));
}

void TestPartProducer::streamErrorsPassThrough()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"Trip/a.bin"_s);
    QVERIFY(writeFile(path, randomBytes(5000)));
    const SendPlan plan = SendPlan::make({dir.filePath(u"Trip"_s)});
    QVERIFY(QFile::resize(path, 4000));
    PartProducer producer(plan, 1000, dir.filePath(u"spill"_s));
    QString message;
    try {
        for (int n = 1; producer.next(n); ++n) {
        }
    } catch (const AppError &e) {
        message = e.message();
    }
    QCOMPARE(message, u"Trip/a.bin changed while sending (it got smaller)."_s);
    QVERIFY(!producer.isFinished());
}

void TestPartProducer::spillFolderMustBeCreatable()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(u"F/a"_s), "1"));
    QVERIFY(writeFile(dir.filePath(u"blocker"_s), "file, not folder"));
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    QVERIFY_THROWS_EXCEPTION(AppError, PartProducer(plan, 10, dir.filePath(u"blocker/spill"_s)));
}

void TestPartProducer::spillFileIsReplaced()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(u"F/a"_s), "1"));
    const QString spill = dir.filePath(u"spill"_s);
    QVERIFY(writeFile(spill + u"/part-1", QByteArray(100000, 'o')));
    const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
    PartProducer producer(plan, 1 << 20, spill);
    const std::optional<PartPayload> part = producer.next(1);
    QVERIFY(part);
    QCOMPARE(QFileInfo(part->path).size(), plan.size);
    QVERIFY(readFile(part->path) == referenceArchive(plan));
}

QTEST_GUILESS_MAIN(TestPartProducer)
#include "tst_partproducer.moc"
