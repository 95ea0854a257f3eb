#pragma once

// org.freedesktop.Notifications as a desktop shell offers it, for a test to register on its
// own connection to the private session bus: it keeps what was posted and can answer with an
// action as a click would.
#include <QObject>
#include <QStringList>
#include <QVariantMap>

namespace lofthaven::testing {

class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Received
    {
        uint id = 0;
        QString title;
        QString body;
        QStringList actions;
    };
    QList<Received> received;

public Q_SLOTS:
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    uint Notify(const QString &, uint, const QString &, const QString &title, const QString &body,
                const QStringList &actions, const QVariantMap &, int)
    {
        received.append({m_nextId, title, body, actions});
        return m_nextId++;
    }
    void CloseNotification(uint id) { Q_EMIT NotificationClosed(id, 3); }

Q_SIGNALS:
    void ActionInvoked(uint id, const QString &action);
    void NotificationClosed(uint id, uint reason);

private:
    uint m_nextId = 100;
};

} // namespace lofthaven::testing
