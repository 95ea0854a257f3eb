#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QQmlApplicationEngine;
class QQuickWindow;

namespace lofthaven {

class AccountSession;
class AppModel;
class DesktopBridge;
class ThemeWatcher;
class TrayController;
struct NotificationEvent;

// The window and everything behind it: the account session, the one application model, the
// desktop operations and the theme, handed to the screens as "model", "desktop" and "theme".
// Needs a QGuiApplication.
class DesktopShell : public QObject
{
    Q_OBJECT

public:
    explicit DesktopShell(QObject *parent = nullptr);
    ~DesktopShell() override;

    // Loads the stored account, builds the screens and shows the window; false when the
    // screens could not be loaded.
    bool open();
    // Names, style and icon look-up of the application; after the QGuiApplication exists.
    static void setUpApplication();
    // Files and folders (staged to send) and lofthaven: links (opened on their tab), as the
    // command line or a file manager hands them over.
    void handleArguments(const QStringList &arguments);

    AppModel *model() const { return m_model; }
    ThemeWatcher *theme() const { return m_theme; }
    DesktopBridge *bridge() const { return m_bridge; }
    TrayController *tray() const { return m_tray; }
    QQmlApplicationEngine *engine() const { return m_engine.get(); }
    QQuickWindow *window() const;

private:
    // A click on one of our notifications: download an inbox item, or show the window.
    void notificationAnswered(const NotificationEvent &event);

    AccountSession *m_session;
    AppModel *m_model = nullptr;
    DesktopBridge *m_bridge;
    ThemeWatcher *m_theme;
    TrayController *m_tray = nullptr;
    std::unique_ptr<QQmlApplicationEngine> m_engine;
};

// `lofthaven` with no verb: the application with its window. Creates the QGuiApplication.
int runDesktop(int &argc, char **argv);

} // namespace lofthaven
