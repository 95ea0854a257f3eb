#include "platform/speedmeter.h"

namespace lofthaven {

SpeedMeter::SpeedMeter(Clock::time_point start)
    : m_lastTime(start)
{}

void SpeedMeter::update(qint64 total, Clock::time_point now)
{
    const double dt = std::chrono::duration<double>(now - m_lastTime).count();
    if (dt < 0.2)
        return;
    const qint64 delta = std::max<qint64>(total - m_lastBytes, 0);
    const double instant = double(delta) / dt;
    m_speed = m_speed == 0 ? instant : 0.3 * instant + 0.7 * m_speed;
    m_lastBytes = total;
    m_lastTime = now;
}

} // namespace lofthaven
