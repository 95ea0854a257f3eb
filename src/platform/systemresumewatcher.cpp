#include "platform/systemresumewatcher.h"

#include <QDBusConnection>

namespace lofthaven {

SystemResumeWatcher::SystemResumeWatcher(QObject *parent)
    : QObject(parent)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return;
    m_watching = bus.connect(QStringLiteral("org.freedesktop.login1"),
                             QStringLiteral("/org/freedesktop/login1"),
                             QStringLiteral("org.freedesktop.login1.Manager"),
                             QStringLiteral("PrepareForSleep"), this, SLOT(prepareForSleep(bool)));
}

void SystemResumeWatcher::prepareForSleep(bool sleeping)
{
    // The same signal announces going to sleep (true) and waking (false).
    if (!sleeping)
        Q_EMIT resumed();
}

} // namespace lofthaven
