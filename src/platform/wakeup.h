#pragma once

#include <QCoreApplication>
#include <QMetaObject>

#include <coroutine>
#include <utility>

namespace lofthaven {

// A one-waiter event for coroutines that share one thread: notify() resumes the waiting
// coroutine from the event loop (never inside the notifier's own stack), or, with nobody
// waiting, lets the next co_await pass at once.
class Wakeup
{
public:
    bool await_ready() noexcept { return std::exchange(m_pending, false); }
    void await_suspend(std::coroutine_handle<> waiter) noexcept { m_waiter = waiter; }
    void await_resume() noexcept {}

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
