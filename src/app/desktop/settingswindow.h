#pragma once

#include "platform/preferences.h"

#include <QObject>
#include <QPointer>
#include <QQuickWindow>
#include <QString>
#include <QVariantList>

class QQmlEngine;

namespace lofthaven {

class AppModel;

// The settings window (SettingsView.qml, tabs General, Account and About) and the
// preferences it shows, handed to its screens as "settings". Every value is read from the
// preferences when asked and written at once; the only state of its own is the launch-at-login
// switch and the last error of changing it. Main thread only.
class SettingsWindow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool launchAtLogin READ launchAtLogin NOTIFY launchAtLoginChanged)
    Q_PROPERTY(QString launchAtLoginError READ launchAtLoginError NOTIFY launchAtLoginChanged)
    Q_PROPERTY(bool showInTray READ showInTray WRITE setShowInTray NOTIFY showInTrayChanged)
    Q_PROPERTY(bool trayAvailable READ trayAvailable NOTIFY trayAvailableChanged)
    Q_PROPERTY(bool autoDownload READ autoDownload WRITE setAutoDownload NOTIFY autoDownloadChanged)
    Q_PROPERTY(
        bool notifications READ notifications WRITE setNotifications NOTIFY notificationsChanged)
    Q_PROPERTY(QString downloadFolder READ downloadFolder NOTIFY downloadFolderChanged)
    Q_PROPERTY(
        bool downloadFolderIsDefault READ downloadFolderIsDefault NOTIFY downloadFolderChanged)
    Q_PROPERTY(QString tempFolder READ tempFolder NOTIFY tempFolderChanged)
    Q_PROPERTY(bool tempFolderIsDefault READ tempFolderIsDefault NOTIFY tempFolderChanged)
    Q_PROPERTY(QString deviceName READ deviceName CONSTANT)

public:
    SettingsWindow(AppModel *model, QQmlEngine *engine, QObject *parent = nullptr);
    ~SettingsWindow() override;

    // Opens the window (made on first use) in front, on the General tab when first made.
    void show();
    QQuickWindow *window() const { return m_window; }

    bool launchAtLogin() const { return m_launchAtLogin; }
    QString launchAtLoginError() const { return m_launchAtLoginError; }
    // Writes or removes the autostart entry; a failure keeps its text and the switch shows the
    // real status again.
    Q_INVOKABLE void setLaunchAtLogin(bool enabled);

    bool showInTray() const;
    bool trayAvailable() const { return m_trayAvailable; }
    void setTrayAvailable(bool available);
    void setShowInTray(bool show);
    bool autoDownload() const;
    void setAutoDownload(bool enabled);
    bool notifications() const;
    void setNotifications(bool enabled);

    // The folders in effect: the chosen one, else the default.
    QString downloadFolder() const;
    bool downloadFolderIsDefault() const;
    QString tempFolder() const;
    bool tempFolderIsDefault() const;
    // Stores a chosen folder (a path or a file: URL); an empty choice changes nothing.
    Q_INVOKABLE void chooseDownloadFolder(const QString &folder);
    Q_INVOKABLE void chooseTempFolder(const QString &folder);
    // Clears the choice: back to the default folder.
    Q_INVOKABLE void useDefaultDownloadFolder();
    Q_INVOKABLE void useDefaultTempFolder();
    // The last component of a folder's path, and the icon name of the folder.
    Q_INVOKABLE static QString folderName(const QString &path);
    Q_INVOKABLE static QString folderIcon(const QString &path);
    Q_INVOKABLE static QString fileUrl(const QString &path);

    QString deviceName() const;
    // The plan under `key` in the account's plans map, "free" when there is none.
    Q_INVOKABLE QString planName(const QString &key) const;
    // The allowed link lifetimes as the Limits section reads them ("1 hour, 1 day, 7 days").
    Q_INVOKABLE static QString expiryList(const QVariantList &seconds);

Q_SIGNALS:
    void launchAtLoginChanged();
    void showInTrayChanged();
    void trayAvailableChanged();
    void autoDownloadChanged();
    void notificationsChanged();
    void downloadFolderChanged();
    void tempFolderChanged();

private:
    bool load();
    // Stores `value` under `key`; whether it changed anything.
    static bool changePreference(Preference key, bool value);

    AppModel *m_model;
    QQmlEngine *m_engine;
    QPointer<QQuickWindow> m_window;
    bool m_launchAtLogin = false;
    QString m_launchAtLoginError;
    bool m_trayAvailable = false;
};

} // namespace lofthaven
