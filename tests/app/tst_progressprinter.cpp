// The progress line of the command line: sizes, percentage, speed and the time left, whose
// format changes at an hour.
#include "app/progressprinter.h"

#include <QTest>

using namespace lofthaven;

class TestProgressPrinter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void describe_data()
    {
        QTest::addColumn<qint64>("done");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<double>("speed");
        QTest::addColumn<QString>("line");
        const qint64 total = 10'000'000;
        QTest::newRow("no speed yet, no time")
            << qint64(0) << total << 0.0 << QStringLiteral("Receiving Zero KB of 9.5 MB (0%)");
        QTest::newRow("a second and a bit rounds up")
            << total - 1001 << total << 1000.0
            << QStringLiteral("Receiving 9.5 MB of 9.5 MB (99%), 1,000 bytes/s, 0:02 left");
        QTest::newRow("59:59") << total - 3'599'000 << total << 1000.0
                               << QStringLiteral("Receiving 6.1 MB of 9.5 MB (64%), "
                                                 "1,000 bytes/s, 59:59 left");
        QTest::newRow("an hour exactly") << total - 3'600'000 << total << 1000.0
                                         << QStringLiteral("Receiving 6.1 MB of 9.5 MB (64%), "
                                                           "1,000 bytes/s, 1:00:00 left");
        QTest::newRow("past an hour") << total - 3'661'000 << total << 1000.0
                                      << QStringLiteral("Receiving 6 MB of 9.5 MB (63%), "
                                                        "1,000 bytes/s, 1:01:01 left");
        QTest::newRow("over a day") << qint64(0) << total << 100.0
                                    << QStringLiteral("Receiving Zero KB of 9.5 MB (0%), "
                                                      "100 bytes/s, 27:46:40 left");
        QTest::newRow("finished: no time")
            << total << total << 1000.0
            << QStringLiteral("Receiving 9.5 MB of 9.5 MB (100%), 1,000 bytes/s");
        QTest::newRow("unknown total")
            << qint64(1024) << qint64(0) << 0.0 << QStringLiteral("Receiving 1 KB of Zero KB");
    }
    void describe()
    {
        QFETCH(qint64, done);
        QFETCH(qint64, total);
        QFETCH(double, speed);
        QFETCH(QString, line);
        QCOMPARE(ProgressPrinter::describe(QStringLiteral("Receiving"), done, total, speed), line);
    }
};

QTEST_GUILESS_MAIN(TestProgressPrinter)
#include "tst_progressprinter.moc"
