#include "app/desktop/traycontroller.h"

#include "app/desktop/desktopbridge.h"
#include "app/desktop/desktopshell.h"
#include "app/desktop/settingswindow.h"
#include "app/desktop/trayicon.h"
#include "app/desktop/traypanel.h"
#include "model/appmodel.h"
#include "receive/downloadjob.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>

namespace lofthaven {

TrayController::TrayController(DesktopShell *shell)
    : QObject(shell)
    , m_shell(shell)
    , m_icon(new TrayIcon(shell->model(), this))
    , m_panel(new TrayPanel(shell->model(), shell->engine(), this))
    , m_settings(new SettingsWindow(shell->model(), shell->engine(), this))
{
    connect(m_icon, &TrayIcon::panelRequested, this, &TrayController::togglePanel);
    // Signed out, a drop for the devices gets the same answer as the file manager's entry.
    connect(m_panel, &TrayPanel::devicesNeedSignIn, this, [this](const QStringList &paths) {
        m_shell->serviceSend(paths, true, SendJob::Origin::MenuBar);
    });
    connect(m_icon, &TrayIcon::sendFilesRequested, shell, &DesktopShell::chooseFilesToSend);
    connect(m_icon, &TrayIcon::receiveRequested, this,
            [this] { showWindow(int(AppModel::Tab::Receive)); });
    connect(m_icon, &TrayIcon::devicesRequested, this,
            [this] { showWindow(int(AppModel::Tab::Devices)); });
    connect(m_icon, &TrayIcon::settingsRequested, this, &TrayController::showSettings);
    connect(m_icon, &TrayIcon::quitRequested, qApp, &QCoreApplication::quit);
    connect(m_icon, &TrayIcon::shownChanged, this, &TrayController::quitIfIdle,
            Qt::QueuedConnection);

    connect(m_panel, &TrayPanel::openWindowRequested, this, [this] {
        m_panel->hide();
        showWindow();
    });
    connect(m_panel, &TrayPanel::settingsRequested, this, [this] {
        m_panel->hide();
        showSettings();
    });
    connect(m_panel, &TrayPanel::quitRequested, qApp, &QCoreApplication::quit);

    connect(m_settings, &SettingsWindow::showInTrayChanged, m_icon, &TrayIcon::refresh);
    connect(m_icon, &TrayIcon::availableChanged, this,
            [this] { m_settings->setTrayAvailable(m_icon->isAvailable()); });
    connect(m_settings, &SettingsWindow::downloadFolderChanged, shell->bridge(),
            &DesktopBridge::downloadFolderChanged);

    // Closing a window or finishing a transfer may leave nothing to stay for.
    connect(shell->model(), &AppModel::jobFinished, this, &TrayController::quitIfIdle,
            Qt::QueuedConnection);
    connect(shell->model(), &AppModel::downloadFinished, this, &TrayController::quitIfIdle,
            Qt::QueuedConnection);
    connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, this,
            &TrayController::quitIfIdle, Qt::QueuedConnection);
}

TrayController::~TrayController() = default;

void TrayController::start()
{
    QGuiApplication::setQuitOnLastWindowClosed(false);
    if (QQuickWindow *window = m_shell->window()) {
        connect(window, &QWindow::visibleChanged, this, &TrayController::quitIfIdle,
                Qt::QueuedConnection);
    }
    m_icon->start();
}

void TrayController::showSettings()
{
    m_settings->show();
    if (QQuickWindow *window = m_settings->window()) {
        connect(window, &QWindow::visibleChanged, this, &TrayController::quitIfIdle,
                Qt::UniqueConnection);
    }
}

void TrayController::togglePanel()
{
    m_panel->toggle();
}

void TrayController::showWindow(int tab)
{
    if (tab >= 0)
        m_shell->model()->setTab(AppModel::Tab(tab));
    m_shell->showWindow();
}

void TrayController::showSignIn()
{
    showWindow();
    if (QQuickWindow *window = m_shell->window())
        QMetaObject::invokeMethod(window, "openSignIn");
}

bool TrayController::transferring() const
{
    AppModel *model = m_shell->model();
    if (model->jobs()->activeCount() > 0)
        return true;
    const QList<DownloadJob *> downloads = model->downloads()->jobs();
    return std::any_of(downloads.cbegin(), downloads.cend(),
                       [](const DownloadJob *job) { return job->isActive(); });
}

void TrayController::quitIfIdle()
{
    // A copied link lives in this process until something else is copied: quitting would
    // empty the clipboard on desktops without a clipboard manager.
    if (m_icon->isShown() || transferring() || QGuiApplication::clipboard()->ownsClipboard())
        return;
    const QWindowList windows = QGuiApplication::topLevelWindows();
    const bool open = std::any_of(windows.begin(), windows.end(), [](const QWindow *window) {
        return window->isVisible() && window->type() != Qt::ToolTip && window->type() != Qt::Popup;
    });
    if (!open)
        QCoreApplication::quit();
}

} // namespace lofthaven
