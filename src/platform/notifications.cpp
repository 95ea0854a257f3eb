#include "platform/notifications.h"

#include "platform/applicationid.h"
#include "platform/desktopapp.h"
#include "platform/preferences.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QHash>
#include <QObject>

namespace lofthaven {

namespace {

const char *const kService = "org.freedesktop.Notifications";
const char *const kPath = "/org/freedesktop/Notifications";
const char *const kInterface = "org.freedesktop.Notifications";
constexpr int kCallTimeoutMs = 10000;

struct Posted
{
    std::optional<QString> transferID;
    bool inbox = false;
};

// Listens to the server's signals and keeps what each of our notifications was posted with.
class NotificationListener : public QObject
{
    Q_OBJECT
public:
    static NotificationListener &instance()
    {
        static NotificationListener listener;
        return listener;
    }

    void remember(uint id, Posted posted) { m_posted.insert(id, std::move(posted)); }

    std::function<void(const NotificationEvent &)> handler;

public Q_SLOTS:
    void onActionInvoked(uint id, const QString &action)
    {
        // The signal is broadcast: other applications' notifications are not ours.
        const auto found = m_posted.constFind(id);
        if (found == m_posted.cend() || !handler)
            return;
        handler({NotificationEvent::Kind::Action, action, found->transferID, found->inbox});
    }

    void onNotificationClosed(uint id, uint)
    {
        const auto found = m_posted.constFind(id);
        if (found == m_posted.cend())
            return;
        const Posted posted = *found;
        m_posted.erase(found);
        if (handler)
            handler({NotificationEvent::Kind::Closed, {}, posted.transferID, posted.inbox});
    }

    // Subscribes to the server's signals (once per process).
    void listen()
    {
        if (m_connected)
            return;
        m_connected = true;
        QDBusConnection bus = QDBusConnection::sessionBus();
        bus.connect(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                    QString::fromLatin1(kInterface), QStringLiteral("ActionInvoked"), this,
                    SLOT(onActionInvoked(uint, QString)));
        bus.connect(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                    QString::fromLatin1(kInterface), QStringLiteral("NotificationClosed"), this,
                    SLOT(onNotificationClosed(uint, uint)));
    }

private:
    bool m_connected = false;
    QHash<uint, Posted> m_posted;
};

} // namespace

void postNotification(const QString &title, const QString &body,
                      const std::optional<QString> &transferID, bool inbox)
{
    if (!isDesktopApp() || !boolPreference(Preference::Notifications))
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    // Listen before posting, so an immediate action is not missed.
    NotificationListener::instance().listen();

    QStringList actions{QString::fromLatin1(kDefaultAction), QStringLiteral("Open")};
    if (inbox)
        actions << QString::fromLatin1(kDownloadAction) << QStringLiteral("Download");
    QVariantMap hints{
        {QStringLiteral("desktop-entry"), QString::fromLatin1(kApplicationId)},
        {QStringLiteral("urgency"), QVariant::fromValue(uchar(1))},
    };
    if (transferID)
        hints.insert(QStringLiteral("x-lofthaven-transfer-id"), *transferID);

    QDBusMessage notify =
        QDBusMessage::createMethodCall(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                                       QString::fromLatin1(kInterface), QStringLiteral("Notify"));
    notify << QStringLiteral("Lofthaven") << uint(0) << QString::fromLatin1(kApplicationId) << title
           << body << actions << hints << int(-1);
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(notify, kCallTimeoutMs));
    const Posted posted{transferID, inbox};
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [posted](QDBusPendingCallWatcher *done) {
                         const QDBusPendingReply<uint> reply = *done;
                         // No server, or it refused: silently nothing.
                         if (reply.isValid() && reply.value() != 0)
                             NotificationListener::instance().remember(reply.value(), posted);
                         done->deleteLater();
                     });
}

void setNotificationHandler(std::function<void(const NotificationEvent &)> handler)
{
    NotificationListener::instance().handler = std::move(handler);
}

} // namespace lofthaven

#include "notifications.moc"
