// Times small JSON GETs through APIClient (transfer thread, decoding included).
// Usage: lofthaven-bench-api-json ORIGIN COUNT CONCURRENCY
// Prints one line: "requests=N concurrency=C seconds=S rps=R p50_ms=A p99_ms=B".
#include "api/apiclient.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace lofthaven;

static QCoro::Task<void> worker(int count, std::vector<double> *latencies)
{
    const APIClient client(QStringLiteral("bench-token"));
    for (int i = 0; i < count; ++i) {
        QElapsedTimer timer;
        timer.start();
        const TransferMeta meta = co_await client.transfer(QStringLiteral("bench1"));
        latencies->push_back(timer.nsecsElapsed() / 1e6);
        if (meta.id.isEmpty())
            std::fprintf(stderr, "empty answer\n");
    }
}

static QCoro::Task<void> runAll(int count, int concurrency, std::vector<double> *latencies)
{
    std::vector<QCoro::Task<void>> workers;
    for (int w = 0; w < concurrency; ++w)
        workers.push_back(
            worker(count / concurrency + (w < count % concurrency ? 1 : 0), latencies));
    for (auto &task : workers)
        co_await task;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: %s ORIGIN COUNT CONCURRENCY\n", argv[0]);
        return 2;
    }
    ServiceOrigin::setUrl(args.at(1));
    const int count = args.at(2).toInt();
    const int concurrency = std::max(1, args.at(3).toInt());
    std::vector<double> latencies;
    latencies.reserve(count);
    // Warm-up: open the connections outside the measurement, as curl's first request does too.
    QCoro::waitFor(runAll(concurrency, concurrency, &latencies));
    latencies.clear();
    QElapsedTimer total;
    total.start();
    QCoro::waitFor(runAll(count, concurrency, &latencies));
    const double seconds = total.nsecsElapsed() / 1e9;
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double q) { return latencies[size_t(q * (latencies.size() - 1))]; };
    std::printf("requests=%zu concurrency=%d seconds=%.3f rps=%.1f p50_ms=%.3f p99_ms=%.3f\n",
                latencies.size(), concurrency, seconds, latencies.size() / seconds, at(0.5),
                at(0.99));
    HttpTransport::instance().shutdown();
    return 0;
}
