#pragma once

#include <QCoreApplication>
#include <QMetaObject>

#include <coroutine>
#include <utility>

namespace lofthaven {

// A one-waiter event for coroutines that share one thread: `co_await wakeup.wait()` suspends
// until notify(), which resumes the waiter from the event loop (never inside the notifier's
// own stack); with nobody waiting, the next wait() passes at once.
class Wakeup
{
public:
    // The awaiter refers to the Wakeup: promise types may copy what is co_awaited.
    class Awaiter
    {
    public:
        explicit Awaiter(Wakeup *wakeup)
            : m_wakeup(wakeup)
        {}
        bool await_ready() noexcept { return std::exchange(m_wakeup->m_pending, false); }
        void await_suspend(std::coroutine_handle<> waiter) noexcept { m_wakeup->m_waiter = waiter; }
        void await_resume() noexcept {}

    private:
        Wakeup *m_wakeup;
    };

    Awaiter wait() { return Awaiter(this); }

    void notify()
    {
        if (!m_waiter) {
            m_pending = true;
            return;
        }
        auto waiter = std::exchange(m_waiter, {});
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [waiter] { waiter.resume(); }, Qt::QueuedConnection);
    }

private:
    std::coroutine_handle<> m_waiter;
    bool m_pending = false;
};

} // namespace lofthaven
