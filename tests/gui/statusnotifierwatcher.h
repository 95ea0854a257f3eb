#pragma once

// A panel's org.kde.StatusNotifierWatcher for tests, on a bus connection and a thread of its
// own, so the app under test (which calls it with blocking calls from the main thread) gets its
// answers. Its properties are exported, so they show in Introspect, which Qt reads before it
// believes a tray exists.
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QThread>

namespace lofthaven::testing {

class StatusNotifierWatcher : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    static constexpr const char *kService = "org.kde.StatusNotifierWatcher";

    // Starts the thread and puts the watcher on the session bus; false when the bus refused.
    bool start()
    {
        m_thread.start();
        moveToThread(&m_thread);
        bool ok = false;
        QMetaObject::invokeMethod(
            this,
            [this, &ok] {
                m_bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                      QStringLiteral("test-watcher"));
                ok = m_bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                                          QDBusConnection::ExportAllContents) &&
                     m_bus.registerService(QString::fromLatin1(kService));
            },
            Qt::BlockingQueuedConnection);
        return ok;
    }

    void stop()
    {
        if (!m_thread.isRunning())
            return;
        QMetaObject::invokeMethod(
            this,
            [this] {
                m_bus.unregisterService(QString::fromLatin1(kService));
                m_bus.unregisterObject(QStringLiteral("/StatusNotifierWatcher"));
                QDBusConnection::disconnectFromBus(QStringLiteral("test-watcher"));
            },
            Qt::BlockingQueuedConnection);
        m_thread.quit();
        m_thread.wait();
    }

    QStringList items() const
    {
        QMutexLocker lock(&m_mutex);
        return m_items;
    }
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

    // Whether an item's service is still on the bus (an item leaves by dropping its name).
    bool itemOnBus(const QString &service) const
    {
        return QDBusConnection::sessionBus().interface()->isServiceRegistered(service).value();
    }

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString &service)
    {
        QMutexLocker lock(&m_mutex);
        m_items.append(service.startsWith(u'/') ? message().service() : service);
    }
    void RegisterStatusNotifierHost(const QString &) {}

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString &service);
    void StatusNotifierItemUnregistered(const QString &service);
    void StatusNotifierHostRegistered();

private:
    QThread m_thread;
    QDBusConnection m_bus{QString()};
    mutable QMutex m_mutex;
    QStringList m_items;
};

} // namespace lofthaven::testing
