#pragma once

// One D-Bus method call as an awaitable task, for the platform code that talks to desktop
// services (credential store label, notifications). Threads: the calling thread's event loop
// delivers the answer; the bus's own call timeout bounds the wait.

#include <QCoroTask>
#include <QDBusConnection>
#include <QDBusMessage>

#include <chrono>

namespace lofthaven {

// The reply, or an error message (no such service, timed out, refused).
QCoro::Task<QDBusMessage> callDBus(QDBusConnection bus, QDBusMessage call,
                                   std::chrono::milliseconds timeout);

} // namespace lofthaven
