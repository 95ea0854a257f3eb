#pragma once

// A polling clock for tests: virtual time that each sleep advances by its full length, with
// only `realWait` of real waiting (enough for a service that refuses polls that come too fast).
// Records every sleep.

#include "api/pollclock.h"
#include "platform/stoppablesleep.h"

#include <QList>

class FakePollClock : public lofthaven::PollClock
{
public:
    explicit FakePollClock(std::chrono::milliseconds realWait = {})
        : m_realWait(realWait)
    {}

    std::chrono::steady_clock::time_point now() const override { return m_now; }
    QCoro::Task<bool> sleep(std::chrono::milliseconds duration, std::stop_token stop) override
    {
        m_sleeps.append(duration.count());
        m_now += duration;
        auto waiting = lofthaven::stoppableSleep(m_realWait, stop);
        co_return co_await waiting;
    }

    // Milliseconds of each sleep so far.
    QList<qint64> sleeps() const { return m_sleeps; }

private:
    std::chrono::milliseconds m_realWait;
    std::chrono::steady_clock::time_point m_now{};
    QList<qint64> m_sleeps;
};

// A session test runs against its own preferences and without any session bus, so the
// credential store keeps the token in memory and nothing reaches the user's keyring.
inline void isolateDesktop(const QString &home)
{
    qputenv("XDG_CONFIG_HOME", (home + "/config").toUtf8());
    qputenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + home + "/no-bus").toUtf8());
}
