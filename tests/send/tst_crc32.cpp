#include "send/crc32.h"

#include <QRandomGenerator>
#include <QTest>

#include <zlib.h>

using namespace lofthaven;

namespace {

quint32 zlibCrc(quint32 crc, const char *data, qsizetype size)
{
    // zlib restarts when handed a null buffer, so an empty range is not passed on.
    if (size == 0)
        return crc;
    return quint32(crc32(crc, reinterpret_cast<const Bytef *>(data), uInt(size)));
}

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (char &c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

} // namespace

// zlib is the reference: the archive's CRCs must not change with the faster implementation.
class TestCrc32 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knownValues_data();
    void knownValues();
    void matchesZlib_data();
    void matchesZlib();
    void continuesAcrossSplits();
};

void TestCrc32::knownValues_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<quint32>("crc");
    QTest::newRow("empty") << QByteArray() << 0u;
    QTest::newRow("one zero byte") << QByteArray(1, '\0') << 0xD202EF8Du;
    QTest::newRow("check string") << QByteArray("123456789") << 0xCBF43926u;
}

void TestCrc32::knownValues()
{
    QFETCH(QByteArray, bytes);
    QFETCH(quint32, crc);
    QCOMPARE(Crc32::update(0, bytes.constData(), bytes.size()), crc);
}

void TestCrc32::matchesZlib_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<qsizetype>("start");
    QTest::addColumn<quint32>("initial");
    const QList<qsizetype> sizes{0,  1,   2,   3,   7,    15,   16,   17,   31,    63,         64,
                                 65, 127, 255, 256, 1000, 4095, 4096, 4097, 65537, 1048576 + 3};
    for (qsizetype size : sizes) {
        for (qsizetype start : {0, 1, 3, 7, 13}) {
            for (quint32 initial : {0u, 0xFFFFFFFFu, 0x12345678u})
                QTest::addRow("%lld bytes at +%lld from %08x", qlonglong(size), qlonglong(start),
                              initial)
                    << size << start << initial;
        }
    }
}

void TestCrc32::matchesZlib()
{
    QFETCH(qsizetype, size);
    QFETCH(qsizetype, start);
    QFETCH(quint32, initial);
    // Unaligned starts: the fast kernels take aligned and unaligned heads differently.
    const QByteArray buffer = randomBytes(size + start, quint32(size * 31 + start));
    const char *data = buffer.constData() + start;
    QCOMPARE(Crc32::update(initial, data, size), zlibCrc(initial, data, size));
}

void TestCrc32::continuesAcrossSplits()
{
    // The stream feeds a file in reads of whatever size the source gives.
    const QByteArray buffer = randomBytes(300000, 7);
    const quint32 whole = zlibCrc(0, buffer.constData(), buffer.size());
    QRandomGenerator generator(11);
    for (int round = 0; round < 20; ++round) {
        quint32 crc = 0;
        qsizetype pos = 0;
        while (pos < buffer.size()) {
            const qsizetype step =
                std::min<qsizetype>(buffer.size() - pos, generator.bounded(0, 70000));
            crc = Crc32::update(crc, buffer.constData() + pos, step);
            pos += step;
        }
        QCOMPARE(crc, whole);
    }
}

QTEST_GUILESS_MAIN(TestCrc32)
#include "tst_crc32.moc"
