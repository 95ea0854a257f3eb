#include "platform/bytecount.h"
#include "platform/finderorder.h"
#include "platform/mimetypes.h"

#include <QTest>
#include <algorithm>

using namespace lofthaven;

class TestPlatformFormatting : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void byteCount_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("text");
        QTest::newRow("zero") << qint64(0) << "Zero KB";
        QTest::newRow("one") << qint64(1) << "1 byte";
        QTest::newRow("two") << qint64(2) << "2 bytes";
        QTest::newRow("1023") << qint64(1023) << "1,023 bytes";
        QTest::newRow("1 KB") << qint64(1024) << "1 KB";
        QTest::newRow("1.5 KB rounds") << qint64(1536) << "2 KB";
        QTest::newRow("just under 1 MB") << qint64(1048575) << "1 MB";
        QTest::newRow("12.4 MB") << qint64(13002342) << "12.4 MB";
        QTest::newRow("500 MB") << qint64(500) * 1024 * 1024 << "500 MB";
        QTest::newRow("2 GB") << qint64(2147483648) << "2 GB";
        QTest::newRow("4 GB less one byte") << qint64(4294967295) << "4 GB";
        QTest::newRow("4.2 GB") << qint64(4509715661) << "4.2 GB";
        QTest::newRow("1.07 GB") << qint64(1148903751) << "1.07 GB";
        QTest::newRow("1 TB") << (qint64(1) << 40) << "1 TB";
        QTest::newRow("minus one") << qint64(-1) << "-1 byte";
        QTest::newRow("minus 1023") << qint64(-1023) << "-1,023 bytes";
        QTest::newRow("minus 1 KB") << qint64(-1024) << "-1 KB";
        QTest::newRow("1 MB less half a KB") << qint64(1048576 - 512) << "1 MB";
        QTest::newRow("largest count") << std::numeric_limits<qint64>::max() << "8 EB";
    }
    void byteCount()
    {
        QFETCH(qint64, bytes);
        QFETCH(QString, text);
        QCOMPARE(formatByteCount(bytes), text);
    }

    void byteCountFollowsLocale()
    {
        QCOMPARE(formatByteCount(1572864, QLocale(QLocale::German, QLocale::Germany)), "1,5 MB");
    }

    void finderOrder_data()
    {
        QTest::addColumn<QStringList>("shuffled");
        QTest::addColumn<QStringList>("sorted");
        QTest::newRow("digit runs by value")
            << QStringList{"file10", "file9", "file1"} << QStringList{"file1", "file9", "file10"};
        QTest::newRow("case-insensitive") << QStringList{"B", "a"} << QStringList{"a", "B"};
        QTest::newRow("ties broken for a total order")
            << QStringList{"File1.txt", "file2.txt", "file1.txt", "file02.txt"}
            << QStringList{"file1.txt", "File1.txt", "file02.txt", "file2.txt"};
        QTest::newRow("paths") << QStringList{"Trip/Sub/x", "Trip/a.txt", "Trip/B.txt"}
                               << QStringList{"Trip/a.txt", "Trip/B.txt", "Trip/Sub/x"};
    }
    void finderOrder()
    {
        QFETCH(QStringList, shuffled);
        QFETCH(QStringList, sorted);
        std::stable_sort(shuffled.begin(), shuffled.end(), FinderOrder());
        QCOMPARE(shuffled, sorted);
    }

    void mimeType_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("mime");
        QTest::newRow("zip") << "a.zip"
                             << "application/zip";
        QTest::newRow("pdf upper case") << "REPORT.PDF"
                                        << "application/pdf";
        QTest::newRow("text") << "notes.txt"
                              << "text/plain";
        QTest::newRow("no extension") << "Makefile-less" << QString();
        QTest::newRow("unknown extension") << "data.qqqzzz" << QString();
    }
    void mimeType()
    {
        QFETCH(QString, name);
        QFETCH(QString, mime);
        QCOMPARE(mimeTypeForFileName(name).value_or(QString()), mime);
    }
};

QTEST_GUILESS_MAIN(TestPlatformFormatting)
#include "tst_bytecount.moc"
