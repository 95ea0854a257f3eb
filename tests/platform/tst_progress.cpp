#include "platform/progresscounter.h"
#include "platform/speedmeter.h"

#include <QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace lofthaven;
using namespace std::chrono_literals;

class TestProgress : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void counter_data();
    void counter();
    void counterUnderConcurrentWriters();
    void speedMeter_data();
    void speedMeter();
};

// ops: "sent P B", "finished P L", "failed P", "done D"; totals: expected total after each op.
void TestProgress::counter_data()
{
    QTest::addColumn<QStringList>("ops");
    QTest::addColumn<QList<qint64>>("totals");
    QTest::newRow("two parts then one finishes")
        << QStringList{"sent 1 300", "sent 2 500", "finished 1 1000"}
        << QList<qint64>{300, 800, 1500};
    QTest::newRow("sent replaces, never adds")
        << QStringList{"sent 1 100", "sent 1 250", "sent 1 400"} << QList<qint64>{100, 250, 400};
    QTest::newRow("failed part counts zero until retried")
        << QStringList{"sent 3 700", "failed 3", "sent 3 100", "finished 3 900"}
        << QList<qint64>{700, 0, 100, 900};
    QTest::newRow("finished without reports")
        << QStringList{"finished 4 4096"} << QList<qint64>{4096};
    QTest::newRow("setDone forgets parts in flight")
        << QStringList{"sent 1 50", "finished 2 1000", "done 400", "sent 1 10"}
        << QList<qint64>{50, 1050, 400, 410};
}

void TestProgress::counter()
{
    QFETCH(QStringList, ops);
    QFETCH(QList<qint64>, totals);
    ProgressCounter counter;
    QCOMPARE(counter.total(), 0);
    for (qsizetype i = 0; i < ops.size(); ++i) {
        const QStringList op = ops.at(i).split(u' ');
        if (op[0] == u"sent")
            counter.sent(op[1].toInt(), op[2].toLongLong());
        else if (op[0] == u"finished")
            counter.finished(op[1].toInt(), op[2].toLongLong());
        else if (op[0] == u"failed")
            counter.failed(op[1].toInt());
        else if (op[0] == u"done")
            counter.setDone(op[1].toLongLong());
        QCOMPARE(counter.total(), totals.at(i));
    }
}

// Four uploaders report growing totals for their parts and finish them while a poller reads.
// With every operation atomic the total never goes down and ends at the sum of the parts;
// a finished() that removed the in-flight bytes and added the length in two steps would
// let the poller see a dip.
void TestProgress::counterUnderConcurrentWriters()
{
    auto counter = std::make_shared<ProgressCounter>();
    constexpr int kWriters = 4;
    constexpr int kPartsEach = 200;
    constexpr qint64 kPartLength = 10000;
    std::atomic<bool> writing{true};
    std::atomic<qint64> dips{0};
    std::thread poller([&] {
        qint64 last = 0;
        while (writing.load()) {
            const qint64 now = counter->total();
            if (now < last)
                dips.fetch_add(1);
            last = now;
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([counter, w] {
            for (int p = 0; p < kPartsEach; ++p) {
                const int part = w * kPartsEach + p + 1;
                for (qint64 sent = 0; sent <= kPartLength; sent += 1000)
                    counter->sent(part, sent);
                counter->finished(part, kPartLength);
            }
        });
    }
    for (std::thread &t : writers)
        t.join();
    writing = false;
    poller.join();
    QCOMPARE(dips.load(), 0);
    QCOMPARE(counter->total(), kWriters * kPartsEach * kPartLength);
}

// samples: "ms:total" since the meter started; speeds: expected speed after each sample.
void TestProgress::speedMeter_data()
{
    QTest::addColumn<QStringList>("samples");
    QTest::addColumn<QList<double>>("speeds");
    QTest::newRow("first sample sets, next one smooths")
        << QStringList{"500:1000000", "1000:1000000"} << QList<double>{2000000, 1400000};
    QTest::newRow("too close samples are ignored")
        << QStringList{"100:5000", "199:9000", "500:1000000"} << QList<double>{0, 0, 2000000};
    QTest::newRow("ignored sample does not move the reference")
        << QStringList{"500:1000000", "600:9999999", "1000:1500000"}
        << QList<double>{2000000, 2000000, 0.3 * 1000000 + 0.7 * 2000000};
    QTest::newRow("total going down counts as zero")
        << QStringList{"1000:4000", "2000:1000"} << QList<double>{4000, 0.7 * 4000};
    QTest::newRow("exactly 0.2 s is accepted") << QStringList{"200:200"} << QList<double>{1000};
}

void TestProgress::speedMeter()
{
    QFETCH(QStringList, samples);
    QFETCH(QList<double>, speeds);
    const SpeedMeter::Clock::time_point start{};
    SpeedMeter meter(start);
    QCOMPARE(meter.speed(), 0.0);
    for (qsizetype i = 0; i < samples.size(); ++i) {
        const auto ms = std::chrono::milliseconds(samples.at(i).section(u':', 0, 0).toInt());
        meter.update(samples.at(i).section(u':', 1).toLongLong(), start + ms);
        QCOMPARE(meter.speed(), speeds.at(i));
    }
}

QTEST_GUILESS_MAIN(TestProgress)
#include "tst_progress.moc"
