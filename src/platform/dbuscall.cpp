#include "platform/dbuscall.h"

#include "platform/wakeup.h"

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <memory>

namespace lofthaven {

QCoro::Task<QDBusMessage> callDBus(QDBusConnection bus, QDBusMessage call,
                                   std::chrono::milliseconds timeout)
{
    if (!bus.isConnected())
        co_return call.createErrorReply(QDBusError::Disconnected, bus.lastError().message());
    auto wakeup = std::make_shared<Wakeup>();
    QDBusPendingCallWatcher watcher(bus.asyncCall(call, int(timeout.count())));
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, [wakeup] { wakeup->notify(); });
    co_await wakeup->wait();
    co_return watcher.reply();
}

} // namespace lofthaven
