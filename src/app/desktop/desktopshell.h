#pragma once

#include "model/sendjob.h"

#include <QList>
#include <QObject>
#include <QStringList>
#include <QUrl>

#include <memory>

class QQmlApplicationEngine;
class QQuickWindow;

namespace lofthaven {

class AccountSession;
class AppModel;
class DesktopBridge;
class LaunchRequest;
class LauncherBadge;
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

    // Loads the stored account and builds the screens, showing the window unless started in
    // the background; false when the screens could not be loaded.
    bool open(bool showWindow = true);
    // Names, style and icon look-up of the application; after the QGuiApplication exists.
    static void setUpApplication();
    // Qt Quick's own software renderer where there is no GPU render node; before the
    // QGuiApplication exists.
    static void preferSoftwareRenderingWithoutGpu();
    // Everything one start of `lofthaven` asks for, in this process or forwarded to it.
    void handleRequest(const LaunchRequest &request);
    // Files and URLs handed to the application: files staged on the send tab, then each
    // lofthaven: link on its tab (send, devices, or receive with the link looked up).
    void openUrls(const QList<QUrl> &urls);
    // "Get Lofthaven Link" and "Send to My Devices" from the file manager (or, with its own
    // origin, files dropped on the tray): nothing readable and signed out are answered here.
    void serviceSend(const QStringList &files, bool toDevices,
                     SendJob::Origin origin = SendJob::Origin::Service);
    // Shows the window (created hidden in the background) and brings it forward.
    void showWindow();
    // "Send Files…": the send tab, then the file chooser.
    void chooseFilesToSend();

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
    LauncherBadge *m_badge = nullptr;
    TrayController *m_tray = nullptr;
    std::unique_ptr<QQmlApplicationEngine> m_engine;
};

// `lofthaven` with no verb: the application with its window, or the hand-over of the
// arguments to the one already running. Creates the QGuiApplication.
int runDesktop(int &argc, char **argv);

} // namespace lofthaven
