#include "app/desktop/desktopshell.h"

#include "api/accountsession.h"
#include "api/apperror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "app/desktop/desktopbridge.h"
#include "app/desktop/qrimageprovider.h"
#include "app/desktop/themewatcher.h"
#include "app/desktop/traycontroller.h"
#include "model/appmodel.h"
#include "platform/desktopapp.h"
#include "platform/notifications.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"
#include "receive/downloadjob.h"

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGuiApplication>
#include <QIcon>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QUrl>

#include <cstdio>

namespace lofthaven {

DesktopShell::DesktopShell(QObject *parent)
    : QObject(parent)
    , m_session(new AccountSession(this))
    , m_bridge(new DesktopBridge(this))
    , m_theme(new ThemeWatcher(this))
{}

DesktopShell::~DesktopShell()
{
    // The screens go before the objects they bind to; the tray's windows before their engine.
    delete m_tray;
    m_engine.reset();
}

void DesktopShell::setUpApplication()
{
    QGuiApplication::setOrganizationName(QStringLiteral("Lofthaven"));
    QGuiApplication::setApplicationName(QStringLiteral("Lofthaven"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Lofthaven"));
    QGuiApplication::setDesktopFileName(QStringLiteral("lofthaven"));
    QQuickStyle::setStyle(QStringLiteral("Fusion"));
    // A bare session names no icon theme; the bundled icons fill what the theme lacks.
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == QLatin1String("hicolor"))
        QIcon::setThemeName(QStringLiteral("Adwaita"));
    QIcon::setFallbackSearchPaths(QIcon::fallbackSearchPaths() << QStringLiteral(":/icons"));
}

bool DesktopShell::open()
{
    registerDefaultSettings();
    m_session->setUrlOpener([](const QUrl &url) { QDesktopServices::openUrl(url); });
    waitForTask(m_session->load());
    m_model = new AppModel(m_session, this);
    m_model->setClipboardWriter(
        [](const QString &text) { QGuiApplication::clipboard()->setText(text); });
    m_theme->watchPortal();
    setNotificationHandler([this](const NotificationEvent &event) { notificationAnswered(event); });

    qmlRegisterUncreatableType<AppModel>("Lofthaven", 1, 0, "AppModel", QStringLiteral("model"));
    qmlRegisterUncreatableType<SendJob>("Lofthaven", 1, 0, "SendJob", QStringLiteral("job"));
    qmlRegisterUncreatableType<DownloadJob>("Lofthaven", 1, 0, "DownloadJob",
                                            QStringLiteral("job"));

    m_engine = std::make_unique<QQmlApplicationEngine>();
    m_engine->addImageProvider(QStringLiteral("qr"), new QrImageProvider);
    QQmlContext *context = m_engine->rootContext();
    context->setContextProperty(QStringLiteral("appModel"), m_model);
    context->setContextProperty(QStringLiteral("desktop"), m_bridge);
    context->setContextProperty(QStringLiteral("theme"), m_theme);
    m_tray = new TrayController(this);
    context->setContextProperty(QStringLiteral("tray"), m_tray);
    m_engine->load(QUrl(QStringLiteral("qrc:/qml/ContentView.qml")));
    if (m_engine->rootObjects().isEmpty())
        return false;
    m_tray->start();
    m_model->start();
    return true;
}

void DesktopShell::notificationAnswered(const NotificationEvent &event)
{
    if (event.kind != NotificationEvent::Kind::Action)
        return;
    const bool download = event.action == QLatin1String(kDownloadAction);
    if (download && event.transferID) {
        m_model->downloadInboxItem(*event.transferID);
        return;
    }
    if (!download && event.transferID)
        m_model->setTab(AppModel::Tab::Devices);
    if (QQuickWindow *shown = window()) {
        shown->show();
        shown->raise();
        shown->requestActivate();
    }
}

QQuickWindow *DesktopShell::window() const
{
    if (!m_engine || m_engine->rootObjects().isEmpty())
        return nullptr;
    return qobject_cast<QQuickWindow *>(m_engine->rootObjects().constFirst());
}

void DesktopShell::handleArguments(const QStringList &arguments)
{
    QStringList files;
    for (const QString &argument : arguments) {
        if (argument.startsWith(QLatin1String("lofthaven:"))) {
            const QString host = QUrl(argument).host();
            if (host == QLatin1String("send")) {
                m_model->setTab(AppModel::Tab::Send);
            } else if (host == QLatin1String("devices")) {
                m_model->setTab(AppModel::Tab::Devices);
            } else {
                m_model->setTab(AppModel::Tab::Receive);
                m_model->setReceiveInput(argument);
                m_model->lookup();
            }
        } else if (QFileInfo::exists(argument)) {
            files.append(QFileInfo(argument).absoluteFilePath());
        }
    }
    if (!files.isEmpty()) {
        m_model->stage(files);
        m_model->setTab(AppModel::Tab::Send);
    }
}

int runDesktop(int &argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("lofthaven: no display to open the window on; the command line works without "
                   "one (lofthaven --help).\n",
                   stderr);
        return 2;
    }
    setDesktopApp(true);
    // Widgets for the tray icon and its menu.
    QApplication app(argc, argv);
    QGuiApplication::setApplicationVersion(QStringLiteral(LOFTHAVEN_VERSION));
    DesktopShell::setUpApplication();
    try {
        ServiceOrigin::configure(app.arguments());
    } catch (const AppError &error) {
        std::fprintf(stderr, "lofthaven: %s\n", qPrintable(error.message()));
        return 2;
    }

    int status = 1;
    {
        DesktopShell shell;
        if (!shell.open()) {
            std::fputs("lofthaven: the window could not be loaded.\n", stderr);
            return 1;
        }
        // For the start-up benchmark: the wall-clock time of the first frame on screen.
        if (qEnvironmentVariableIsSet("LOFTHAVEN_REPORT_FIRST_FRAME")) {
            QObject::connect(
                shell.window(), &QQuickWindow::frameSwapped, &app,
                [] {
                    static bool reported = false;
                    if (!reported) {
                        reported = true;
                        std::fprintf(stderr, "first-frame-epoch-ms %lld\n",
                                     static_cast<long long>(QDateTime::currentMSecsSinceEpoch()));
                    }
                },
                Qt::DirectConnection);
        }
        QStringList arguments = app.arguments();
        arguments.removeFirst();
        shell.handleArguments(arguments);
        status = app.exec();
    }
    HttpTransport::instance().shutdown();
    return status;
}

} // namespace lofthaven
