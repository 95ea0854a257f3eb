#include "platform/stoppablesleep.h"

#include <QCoroTimer>
#include <QPointer>
#include <QTimer>

namespace lofthaven {

QCoro::Task<bool> stoppableSleep(std::chrono::milliseconds duration, std::stop_token stop)
{
    if (stop.stop_requested())
        co_return false;
    QTimer timer;
    timer.setSingleShot(true);
    timer.setInterval(duration);
    // The stop request may come from another thread: hop to the timer's thread to end it.
    QPointer<QTimer> guard(&timer);
    std::stop_callback wake(stop, [guard] {
        QMetaObject::invokeMethod(
            guard,
            [guard] {
                if (guard)
                    guard->start(0);
            },
            Qt::QueuedConnection);
    });
    timer.start();
    co_await timer;
    co_return !stop.stop_requested();
}

} // namespace lofthaven
