// Benchmark driver for the send engine (not a test):
//   lofthaven-bench-send plan DIR                 plan one folder
//   lofthaven-bench-send zip DIR SPILLDIR PARTSIZE  plan, stream and spill every part
// Prints one line "items=N bytes=B ms=T" (T measured inside the process).

#include "send/partproducer.h"
#include "send/sendplan.h"

#include <QElapsedTimer>
#include <QException>

#include <cstdio>
#include <cstring>

using namespace lofthaven;

int main(int argc, char *argv[])
{
    const bool plan = argc == 3 && std::strcmp(argv[1], "plan") == 0;
    const bool zip = argc == 5 && std::strcmp(argv[1], "zip") == 0;
    if (!plan && !zip) {
        std::fputs("usage: lofthaven-bench-send plan DIR | zip DIR SPILLDIR PARTSIZE\n", stderr);
        return 2;
    }
    try {
        QElapsedTimer timer;
        timer.start();
        const SendPlan sendPlan = SendPlan::make({QString::fromLocal8Bit(argv[2])});
        qint64 bytes = sendPlan.size;
        if (zip) {
            PartProducer producer(sendPlan, std::atoll(argv[4]), QString::fromLocal8Bit(argv[3]));
            bytes = 0;
            for (int part = 1; const std::optional<PartPayload> payload = producer.next(part);
                 ++part)
                bytes += payload->length;
            if (!producer.isFinished() || bytes != sendPlan.size) {
                std::fputs("archive size differs from the plan\n", stderr);
                return 1;
            }
        }
        std::printf("items=%lld bytes=%lld ms=%lld\n", qint64(sendPlan.items.size()), bytes,
                    timer.elapsed());
        return 0;
    } catch (const QException &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
