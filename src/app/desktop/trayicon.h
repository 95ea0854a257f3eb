#pragma once

#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>

class QDBusServiceWatcher;
class QMenu;

namespace lofthaven {

class AppModel;

// The tray icon (a StatusNotifierItem) and its context menu.
//
// Qt 6.4 decides once per process whether a tray exists, so the icon is made only after the
// panel's org.kde.StatusNotifierWatcher is on the session bus; until then (or for good, on a
// desktop without a tray) the application simply has no icon. The "showMenuBarExtra" preference
// hides and shows it. The icon shows an upload while any send job is active.
//
// The menu is rebuilt each time it opens: the send, receive and devices entries, the links of
// the newest unexpired transfers, settings and quit. Its commands are signals; copying a link
// is done here. Main thread only.
class TrayIcon : public QObject
{
    Q_OBJECT

public:
    static constexpr int kHostGraceMs = 300;

    explicit TrayIcon(AppModel *model, QObject *parent = nullptr);
    ~TrayIcon() override;

    // Starts watching the session bus for the panel's watcher.
    void start();
    // Whether an icon is on the panel right now.
    bool isShown() const;
    // Whether the desktop has a tray (a watcher appeared and widgets are available).
    bool isAvailable() const { return m_trayAvailable; }
    // Reads "showMenuBarExtra" again and shows or hides the icon accordingly.
    void refresh();
    // Both made with the first icon.
    QSystemTrayIcon *icon() const { return m_icon; }
    QMenu *menu() const { return m_menu; }

Q_SIGNALS:
    void shownChanged();
    void availableChanged();
    void panelRequested();
    void sendFilesRequested();
    void receiveRequested();
    void devicesRequested();
    void settingsRequested();
    void quitRequested();

private:
    void watcherAppeared();
    void updateIcon();
    void rebuildMenu();

    AppModel *m_model;
    QDBusServiceWatcher *m_watcher = nullptr;
    QMenu *m_menu = nullptr;
    QPointer<QSystemTrayIcon> m_icon;
    bool m_trayAvailable = false;
    bool m_uploading = false;
};

} // namespace lofthaven
