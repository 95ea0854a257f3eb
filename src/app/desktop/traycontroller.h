#pragma once

#include <QObject>

namespace lofthaven {

class DesktopShell;
class SettingsWindow;
class TrayIcon;
class TrayPanel;

// The app's life outside its main window: the tray icon with its menu, the tray panel and the
// settings window, and the rule for closing the main window. The app stays running after the
// window closes only while a tray icon is shown or a transfer runs; otherwise it quits.
// Handed to the screens as "tray". Main thread only; needs a QApplication.
class TrayController : public QObject
{
    Q_OBJECT

public:
    explicit TrayController(DesktopShell *shell);
    ~TrayController() override;

    // After the main window is loaded: watch for the tray and for the window closing.
    void start();

    TrayIcon *icon() const { return m_icon; }
    TrayPanel *panel() const { return m_panel; }
    SettingsWindow *settings() const { return m_settings; }

    Q_INVOKABLE void showSettings();
    Q_INVOKABLE void togglePanel();
    // The main window in front, on `tab` (an AppModel::Tab) unless it is -1.
    Q_INVOKABLE void showWindow(int tab = -1);
    // The main window with its sign-in sheet open.
    Q_INVOKABLE void showSignIn();

private:
    // Quits when no window is open, no tray icon is shown and nothing is transferring.
    void quitIfIdle();
    bool transferring() const;

    DesktopShell *m_shell;
    TrayIcon *m_icon;
    TrayPanel *m_panel;
    SettingsWindow *m_settings;
};

} // namespace lofthaven
