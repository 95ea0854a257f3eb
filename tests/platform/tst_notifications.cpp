// Notifications against a notification server of our own, on the private session bus this
// test runs on (dbus-run-session): what arrives, and what comes back.
#include "platform/desktopapp.h"
#include "platform/notifications.h"
#include "platform/preferences.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;

// org.freedesktop.Notifications as a desktop shell offers it, on its own bus connection.
class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Received
    {
        QString appName;
        QString icon;
        QString title;
        QString body;
        QStringList actions;
        QVariantMap hints;
    };
    QList<Received> received;
    uint nextId = 41;

public Q_SLOTS:
    QStringList GetCapabilities() { return {"actions", "body"}; }
    uint Notify(const QString &appName, uint, const QString &icon, const QString &title,
                const QString &body, const QStringList &actions, const QVariantMap &hints, int)
    {
        received.append({appName, icon, title, body, actions, hints});
        return ++nextId;
    }
    void CloseNotification(uint id) { Q_EMIT NotificationClosed(id, 3); }

Q_SIGNALS:
    void ActionInvoked(uint id, const QString &action);
    void NotificationClosed(uint id, uint reason);
};

class TestNotifications : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
    QDBusConnection m_serverBus{QString()};
    NotificationServer m_server;
    QList<NotificationEvent> m_events;

    // Waits until the server has `count` notifications (D-Bus keeps the order of calls).
    bool receivedCount(int count)
    {
        return QTest::qWaitFor([&] { return m_server.received.size() >= count; }) &&
               m_server.received.size() == count;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_home.isValid());
        qputenv("XDG_CONFIG_HOME", m_home.path().toUtf8());
        registerDefaultSettings();
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "run under dbus-run-session");
        m_serverBus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "server");
        QVERIFY(m_serverBus.registerObject("/org/freedesktop/Notifications", &m_server,
                                           QDBusConnection::ExportAllSlots |
                                               QDBusConnection::ExportAllSignals));
        QVERIFY(m_serverBus.registerService("org.freedesktop.Notifications"));
        setNotificationHandler([this](const NotificationEvent &event) { m_events << event; });
    }

    void init()
    {
        m_server.received.clear();
        m_events.clear();
        setDesktopApp(true);
        setBoolPreference(Preference::Notifications, true);
    }

    void whatArrives_data()
    {
        QTest::addColumn<std::optional<QString>>("transferID");
        QTest::addColumn<bool>("inbox");
        QTest::addColumn<QStringList>("actions");
        QTest::newRow("inbox") << std::optional<QString>("t-123") << true
                               << QStringList{"default", "Open", "LH_DOWNLOAD", "Download"};
        QTest::newRow("inbox without a transfer")
            << std::optional<QString>() << true
            << QStringList{"default", "Open", "LH_DOWNLOAD", "Download"};
        QTest::newRow("a send finished")
            << std::optional<QString>("t-9") << false << QStringList{"default", "Open"};
    }
    void whatArrives()
    {
        QFETCH(std::optional<QString>, transferID);
        QFETCH(bool, inbox);
        QFETCH(QStringList, actions);
        postNotification("From your phone", "holiday.jpg (2.1 MB)", transferID, inbox);
        QVERIFY(receivedCount(1));
        const auto &got = m_server.received.first();
        QCOMPARE(got.appName, QStringLiteral("Lofthaven"));
        QCOMPARE(got.icon, QStringLiteral("org.lofthaven.Lofthaven"));
        QCOMPARE(got.title, QStringLiteral("From your phone"));
        QCOMPARE(got.body, QStringLiteral("holiday.jpg (2.1 MB)"));
        QCOMPARE(got.actions, actions);
        QCOMPARE(got.hints.value("desktop-entry").toString(),
                 QStringLiteral("org.lofthaven.Lofthaven"));
        QCOMPARE(got.hints.contains("x-lofthaven-transfer-id"), transferID.has_value());
        if (transferID)
            QCOMPARE(got.hints.value("x-lofthaven-transfer-id").toString(), *transferID);
    }

    void actionsReachTheHandler()
    {
        postNotification("From your phone", "a.txt", QStringLiteral("t-1"), true);
        postNotification("From your laptop", "b.txt", QStringLiteral("t-2"), true);
        QVERIFY(receivedCount(2));
        const uint first = m_server.nextId - 1;
        const uint second = m_server.nextId;
        // Another application's notification, then ours.
        Q_EMIT m_server.ActionInvoked(7, "LH_DOWNLOAD");
        Q_EMIT m_server.ActionInvoked(second, "LH_DOWNLOAD");
        Q_EMIT m_server.ActionInvoked(first, "default");
        m_server.CloseNotification(second);
        QVERIFY(QTest::qWaitFor([&] { return m_events.size() >= 3; }));
        QCOMPARE(m_events.size(), 3);
        QCOMPARE(m_events.at(0).kind, NotificationEvent::Kind::Action);
        QCOMPARE(m_events.at(0).action, QStringLiteral("LH_DOWNLOAD"));
        QCOMPARE(m_events.at(0).transferID, QStringLiteral("t-2"));
        QCOMPARE(m_events.at(0).inbox, true);
        QCOMPARE(m_events.at(1).action, QStringLiteral("default"));
        QCOMPARE(m_events.at(1).transferID, QStringLiteral("t-1"));
        QCOMPARE(m_events.at(2).kind, NotificationEvent::Kind::Closed);
        QCOMPARE(m_events.at(2).transferID, QStringLiteral("t-2"));
    }

    // Suppressed notifications are posted first; the one allowed after them must be the
    // first and only one to arrive.
    void onlyFromTheDesktopAppWithThePreferenceOn()
    {
        setDesktopApp(false);
        postNotification("From the command line", "x", std::nullopt, false);
        setDesktopApp(true);
        setBoolPreference(Preference::Notifications, false);
        postNotification("Turned off", "x", std::nullopt, false);
        setBoolPreference(Preference::Notifications, true);
        postNotification("Allowed", "x", std::nullopt, false);
        QVERIFY(receivedCount(1));
        QCOMPARE(m_server.received.first().title, QStringLiteral("Allowed"));
    }

    void noServerIsSilent()
    {
        QVERIFY(m_serverBus.unregisterService("org.freedesktop.Notifications"));
        postNotification("Nobody listens", "x", QStringLiteral("t-3"), true);
        // A round trip on the poster's connection: the bus has routed (and refused) the post
        // before the server comes back.
        QVERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(
            "org.freedesktop.Notifications"));
        QVERIFY(m_serverBus.registerService("org.freedesktop.Notifications"));
        postNotification("Back", "x", std::nullopt, false);
        QVERIFY(receivedCount(1));
        QCOMPARE(m_server.received.first().title, QStringLiteral("Back"));
    }
};

QTEST_GUILESS_MAIN(TestNotifications)
#include "tst_notifications.moc"
