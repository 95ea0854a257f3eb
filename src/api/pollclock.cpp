#include "api/pollclock.h"

#include "platform/stoppablesleep.h"

namespace lofthaven {

std::chrono::steady_clock::time_point PollClock::now() const
{
    return std::chrono::steady_clock::now();
}

QCoro::Task<bool> PollClock::sleep(std::chrono::milliseconds duration, std::stop_token stop)
{
    auto sleeping = stoppableSleep(duration, stop);
    co_return co_await sleeping;
}

} // namespace lofthaven
