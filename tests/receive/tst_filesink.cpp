// Where the bytes of one download answer go, decided by status and Content-Range alone: a 200
// rewrites the partial file, a 206 is appended only when it starts exactly where the file
// ends, and anything else is kept as the error body.
#include "api/usermessage.h"
#include "receive/filesink.h"
#include "testdata.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {
const QString kMisplaced =
    QStringLiteral("The service sent a different part of the file than was asked for.");
}

class TestFileSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answer_data()
    {
        QTest::addColumn<QByteArray>("before");   // the partial file; null: none
        QTest::addColumn<qint64>("resumeFrom");   // the Range asked for
        QTest::addColumn<qint64>("expectedSize"); // -1: no size guard
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("contentRange"); // empty: no header
        QTest::addColumn<QByteArray>("after");        // null: the file is gone
        QTest::addColumn<QString>("error");

        QTest::newRow("200 rewrites from the first byte")
            << QByteArray("stale") << qint64(5) << qint64(8) << 200 << QByteArray()
            << QByteArray("abcdefgh") << QString();
        QTest::newRow("206 where the file ends is appended")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 5-7/8")
            << QByteArray("abcdefgh") << QString();
        QTest::newRow("206 with an unknown total")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 5-7/*")
            << QByteArray("abcdefgh") << QString();
        QTest::newRow("206 from zero when nothing was asked")
            << QByteArray() << qint64(0) << qint64(8) << 206 << QByteArray("bytes 0-7/8")
            << QByteArray("abcdefgh") << QString();
        QTest::newRow("206 one byte early")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 4-7/8")
            << QByteArray("abcde") << kMisplaced;
        QTest::newRow("206 one byte late")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 6-7/8")
            << QByteArray("abcde") << kMisplaced;
        QTest::newRow("206 without Content-Range")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray()
            << QByteArray("abcde") << kMisplaced;
        QTest::newRow("206 with a malformed range")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes=5-7/8")
            << QByteArray("abcde") << kMisplaced;
        QTest::newRow("206 from zero when a range was asked")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 0-7/8")
            << QByteArray("abcde") << kMisplaced;
        QTest::newRow("file shorter than when asked")
            << QByteArray("abc") << qint64(5) << qint64(8) << 206 << QByteArray("bytes 5-7/8")
            << QByteArray() << QStringLiteral("The partial download changed while resuming.");
        QTest::newRow("one byte more than the transfer")
            << QByteArray("abcde") << qint64(5) << qint64(7) << 206 << QByteArray("bytes 5-7/8")
            << QByteArray("abcde")
            << QStringLiteral("The service sent more bytes than the transfer holds.");
        QTest::newRow("no size guard")
            << QByteArray("abcde") << qint64(5) << qint64(-1) << 206 << QByteArray("bytes 5-7/8")
            << QByteArray("abcdefgh") << QString();
        QTest::newRow("an error answer leaves the file")
            << QByteArray("abcde") << qint64(5) << qint64(8) << 500 << QByteArray()
            << QByteArray("abcde") << QString();
    }
    void answer()
    {
        QFETCH(QByteArray, before);
        QFETCH(qint64, resumeFrom);
        QFETCH(qint64, expectedSize);
        QFETCH(int, status);
        QFETCH(QByteArray, contentRange);
        QFETCH(QByteArray, after);
        QFETCH(QString, error);
        QTemporaryDir dir;
        const QString partial = dir.filePath(QStringLiteral("t.part"));
        if (!before.isNull())
            QVERIFY(writeFile(partial, before));

        // The whole transfer is "abcdefgh"; a 206 carries what its range names.
        const QByteArray body = status == 200   ? QByteArray("abcdefgh")
                                : status == 206 ? QByteArray("abcdefgh").mid(resumeFrom)
                                                : QByteArray("{\"error\":\"x\"}");
        qint64 reported = -1;
        FileSink sink(partial, resumeFrom, expectedSize, [&](qint64 total) { reported = total; });
        HttpHeaders headers;
        if (!contentRange.isEmpty())
            headers.append({"Content-Range", contentRange});
        QVERIFY(sink.begin(status, headers));
        const bool taken = sink.write(body.constData(), body.size());
        sink.finish();

        QCOMPARE(sink.error() ? userMessage(sink.error()) : QString(), error);
        QCOMPARE(taken, error.isEmpty());
        if (after.isNull())
            QVERIFY(!QFile::exists(partial));
        else
            QCOMPARE(readFile(partial), after);
        if (error.isEmpty() && (status == 200 || status == 206))
            QCOMPARE(reported, after.size());
        QCOMPARE(sink.errorBody(), status >= 400 ? body : QByteArray());
    }

    // An endless error body is cut at the cap, and the request with it.
    void errorBodyIsCapped()
    {
        QTemporaryDir dir;
        FileSink sink(dir.filePath(QStringLiteral("t.part")), 0, 8, {});
        QVERIFY(sink.begin(500, {}));
        const QByteArray chunk(FileSink::kErrorBodyCap - 1, 'e');
        QVERIFY(sink.write(chunk.constData(), chunk.size()));
        QVERIFY(!sink.write("ee", 2));
        QCOMPARE(sink.errorBody().size(), FileSink::kErrorBodyCap);
    }
};

QTEST_GUILESS_MAIN(TestFileSink)
#include "tst_filesink.moc"
