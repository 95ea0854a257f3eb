#pragma once

#include <QtGlobal>
#include <chrono>

namespace lofthaven {

// Smoothed transfer speed from successive byte totals (polled every 250 ms). Samples closer
// than 0.2 s to the last accepted one are ignored; each accepted sample weighs 0.3 against
// the previous speed. A total that went down (a failed part) counts as no progress.
class SpeedMeter
{
public:
    using Clock = std::chrono::steady_clock;

    explicit SpeedMeter(Clock::time_point start = Clock::now());

    void update(qint64 total, Clock::time_point now = Clock::now());

    // Bytes per second; 0 until the first accepted sample.
    double speed() const { return m_speed; }

private:
    qint64 m_lastBytes = 0;
    Clock::time_point m_lastTime;
    double m_speed = 0;
};

} // namespace lofthaven
