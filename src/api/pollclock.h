#pragma once

#include <QCoroTask>

#include <chrono>
#include <stop_token>

namespace lofthaven {

// The time source and sleeper of a polling loop. The real one reads the monotonic clock and
// sleeps on the event loop; tests replace it to run a whole polling schedule without waiting.
// Threads: the loop's own thread.
class PollClock
{
public:
    virtual ~PollClock() = default;
    virtual std::chrono::steady_clock::time_point now() const;
    // False when the stop token ended the sleep early.
    virtual QCoro::Task<bool> sleep(std::chrono::milliseconds duration, std::stop_token stop);
};

} // namespace lofthaven
