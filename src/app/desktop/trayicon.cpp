#include "app/desktop/trayicon.h"

#include "app/desktop/copylinkentries.h"
#include "model/appmodel.h"
#include "platform/preferences.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QFile>
#include <QGuiApplication>
#include <QHash>
#include <QIcon>
#include <QJSEngine>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

namespace lofthaven {

namespace {

const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");

// The tray's icon names come from the same symbol table the screens use.
QString trayIconName(const QString &symbol)
{
    static QHash<QString, QString> names;
    if (const auto known = names.constFind(symbol); known != names.constEnd())
        return known.value();
    QFile file(QStringLiteral(":/qml/symbols.js"));
    QString source;
    if (file.open(QIODevice::ReadOnly))
        source = QString::fromUtf8(file.readAll());
    source.remove(QStringLiteral(".pragma library"));
    QJSEngine engine;
    engine.evaluate(source);
    const QJSValue name = engine.globalObject().property(QStringLiteral("trayIcon")).call({symbol});
    return names[symbol] = name.isString() ? name.toString() : symbol;
}

} // namespace

TrayIcon::TrayIcon(AppModel *model, QObject *parent)
    : QObject(parent)
    , m_model(model)
{
    connect(m_model->jobs(), &SendJobList::activeCountChanged, this, &TrayIcon::updateIcon);
}

TrayIcon::~TrayIcon()
{
    delete m_icon;
    delete m_menu;
}

void TrayIcon::start()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || m_watcher)
        return;
    m_watcher = new QDBusServiceWatcher(kWatcherService, bus,
                                        QDBusServiceWatcher::WatchForRegistration, this);
    connect(m_watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        // Give the panel's host a moment to register with its watcher.
        QTimer::singleShot(kHostGraceMs, this, &TrayIcon::watcherAppeared);
    });
    if (bus.interface() && bus.interface()->isServiceRegistered(kWatcherService).value())
        watcherAppeared();
}

bool TrayIcon::isShown() const
{
    return m_icon && m_icon->isVisible();
}

void TrayIcon::watcherAppeared()
{
    // The icon and its menu are widgets: a QGuiApplication (some tests) gets no tray.
    if (!qobject_cast<QApplication *>(QCoreApplication::instance()))
        return;
    if (!m_trayAvailable) {
        m_trayAvailable = true;
        Q_EMIT availableChanged();
    }
    refresh();
}

void TrayIcon::refresh()
{
    const bool wanted = m_trayAvailable && boolPreference(Preference::ShowMenuBarExtra);
    if (wanted == isShown())
        return;
    if (wanted) {
        if (!m_icon) {
            m_menu = new QMenu;
            connect(m_menu, &QMenu::aboutToShow, this, &TrayIcon::rebuildMenu);
            rebuildMenu();
            m_icon = new QSystemTrayIcon(this);
            m_icon->setToolTip(QStringLiteral("Lofthaven"));
            m_icon->setContextMenu(m_menu);
            connect(m_icon, &QSystemTrayIcon::activated, this,
                    [this](QSystemTrayIcon::ActivationReason reason) {
                        if (reason == QSystemTrayIcon::Trigger)
                            Q_EMIT panelRequested();
                    });
            m_uploading = m_model->jobs()->activeCount() > 0;
            m_icon->setIcon(
                QIcon::fromTheme(trayIconName(m_uploading ? QStringLiteral("arrow.up.circle.fill")
                                                          : QStringLiteral("paperplane.fill"))));
        }
        m_icon->show();
    } else {
        m_icon->hide();
    }
    Q_EMIT shownChanged();
}

void TrayIcon::updateIcon()
{
    const bool uploading = m_model->jobs()->activeCount() > 0;
    if (uploading == m_uploading || !m_icon)
        return;
    m_uploading = uploading;
    m_icon->setIcon(QIcon::fromTheme(trayIconName(uploading ? QStringLiteral("arrow.up.circle.fill")
                                                            : QStringLiteral("paperplane.fill"))));
}

void TrayIcon::rebuildMenu()
{
    m_menu->clear();
    connect(m_menu->addAction(tr("Send Files…")), &QAction::triggered, this,
            &TrayIcon::sendFilesRequested);
    connect(m_menu->addAction(tr("Receive…")), &QAction::triggered, this,
            &TrayIcon::receiveRequested);
    if (m_model->signedIn()) {
        connect(m_menu->addAction(tr("My Devices")), &QAction::triggered, this,
                &TrayIcon::devicesRequested);
    }
    const QList<CopyLinkEntry> entries =
        copyLinkEntries(m_model->history()->entries(), double(m_model->now().toMSecsSinceEpoch()));
    if (!entries.isEmpty()) {
        m_menu->addSeparator();
        m_menu->addAction(tr("Copy Link"))->setEnabled(false);
        for (const CopyLinkEntry &entry : entries) {
            QAction *action = m_menu->addAction(entry.title);
            action->setData(entry.link);
            connect(action, &QAction::triggered, this,
                    [link = entry.link] { QGuiApplication::clipboard()->setText(link); });
        }
    }
    // What a tray menu on Linux is expected to end with.
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Settings…")), &QAction::triggered, this,
            &TrayIcon::settingsRequested);
    connect(m_menu->addAction(tr("Quit Lofthaven")), &QAction::triggered, this,
            &TrayIcon::quitRequested);
}

} // namespace lofthaven
