#include "app/desktop/settingswindow.h"

#include "app/desktop/desktopbridge.h"
#include "app/desktop/qmlwindow.h"
#include "model/appmodel.h"
#include "platform/apperror.h"
#include "platform/devicename.h"
#include "platform/folders.h"
#include "platform/launchatlogin.h"
#include "platform/preferences.h"

#include <QDir>
#include <QFileInfo>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QStandardPaths>
#include <QUrl>

namespace lofthaven {

namespace {

QString localPath(const QString &folder)
{
    const QUrl url(folder);
    return QDir::cleanPath(url.isLocalFile() ? url.toLocalFile() : folder);
}

} // namespace

SettingsWindow::SettingsWindow(AppModel *model, QQmlEngine *engine, QObject *parent)
    : QObject(parent)
    , m_model(model)
    , m_engine(engine)
    , m_launchAtLogin(lofthaven::launchAtLogin())
{}

SettingsWindow::~SettingsWindow()
{
    delete m_window;
}

bool SettingsWindow::load()
{
    if (m_window)
        return true;
    m_window = createQmlWindow(m_engine, this, QStringLiteral("settings"),
                               QStringLiteral("qrc:/qml/SettingsView.qml"));
    return m_window != nullptr;
}

void SettingsWindow::show()
{
    if (!m_window) {
        // The switch starts from the true status each time the window is made.
        m_launchAtLogin = lofthaven::launchAtLogin();
        m_launchAtLoginError.clear();
    }
    if (!load())
        return;
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}

void SettingsWindow::setLaunchAtLogin(bool enabled)
{
    try {
        lofthaven::setLaunchAtLogin(enabled);
        m_launchAtLoginError.clear();
    } catch (const AppError &error) {
        m_launchAtLoginError = error.message();
    }
    m_launchAtLogin = lofthaven::launchAtLogin();
    Q_EMIT launchAtLoginChanged();
}

bool SettingsWindow::showInTray() const
{
    return boolPreference(Preference::ShowMenuBarExtra);
}

void SettingsWindow::setShowInTray(bool show)
{
    if (changePreference(Preference::ShowMenuBarExtra, show))
        Q_EMIT showInTrayChanged();
}

bool SettingsWindow::changePreference(Preference key, bool value)
{
    if (value == boolPreference(key))
        return false;
    setBoolPreference(key, value);
    return true;
}

void SettingsWindow::setTrayAvailable(bool available)
{
    if (available == m_trayAvailable)
        return;
    m_trayAvailable = available;
    Q_EMIT trayAvailableChanged();
}

bool SettingsWindow::autoDownload() const
{
    return boolPreference(Preference::AutoDownload);
}

void SettingsWindow::setAutoDownload(bool enabled)
{
    if (changePreference(Preference::AutoDownload, enabled))
        Q_EMIT autoDownloadChanged();
}

bool SettingsWindow::notifications() const
{
    return boolPreference(Preference::Notifications);
}

void SettingsWindow::setNotifications(bool enabled)
{
    if (changePreference(Preference::Notifications, enabled))
        Q_EMIT notificationsChanged();
}

QString SettingsWindow::downloadFolder() const
{
    return lofthaven::downloadFolder();
}

bool SettingsWindow::downloadFolderIsDefault() const
{
    return stringPreference(Preference::DownloadFolder).isEmpty();
}

QString SettingsWindow::tempFolder() const
{
    // The chosen folder itself; the app keeps its files in a folder of its own inside it.
    const QString chosen = stringPreference(Preference::TempFolder);
    return chosen.isEmpty() ? defaultTempFolder() : chosen;
}

bool SettingsWindow::tempFolderIsDefault() const
{
    return stringPreference(Preference::TempFolder).isEmpty();
}

void SettingsWindow::chooseDownloadFolder(const QString &folder)
{
    if (folder.isEmpty())
        return;
    setStringPreference(Preference::DownloadFolder, localPath(folder));
    Q_EMIT downloadFolderChanged();
}

void SettingsWindow::chooseTempFolder(const QString &folder)
{
    if (folder.isEmpty())
        return;
    setStringPreference(Preference::TempFolder, localPath(folder));
    Q_EMIT tempFolderChanged();
}

void SettingsWindow::useDefaultDownloadFolder()
{
    setStringPreference(Preference::DownloadFolder, QString());
    Q_EMIT downloadFolderChanged();
}

void SettingsWindow::useDefaultTempFolder()
{
    setStringPreference(Preference::TempFolder, QString());
    Q_EMIT tempFolderChanged();
}

QString SettingsWindow::folderName(const QString &path)
{
    return DesktopBridge::fileName(path);
}

QString SettingsWindow::folderIcon(const QString &path)
{
    const QString clean = QDir::cleanPath(path);
    if (clean ==
        QDir::cleanPath(QStandardPaths::writableLocation(QStandardPaths::DownloadLocation)))
        return QStringLiteral("folder-download");
    if (clean == QDir::cleanPath(QDir::homePath()))
        return QStringLiteral("user-home");
    return QStringLiteral("folder");
}

QString SettingsWindow::fileUrl(const QString &path)
{
    return QUrl::fromLocalFile(path).toString();
}

QString SettingsWindow::deviceName() const
{
    return lofthaven::deviceName();
}

QString SettingsWindow::planName(const QString &key) const
{
    const std::optional<MeResponse> me = m_model->me();
    if (me && me->plans) {
        const auto found = me->plans->constFind(key);
        if (found != me->plans->constEnd())
            return found.value();
    }
    return QStringLiteral("free");
}

QString SettingsWindow::expiryList(const QVariantList &seconds)
{
    QStringList parts;
    for (const QVariant &value : seconds)
        parts.append(DesktopBridge::formatExpiry(value.toLongLong()));
    return parts.join(QStringLiteral(", "));
}

} // namespace lofthaven
