#include "app/desktop/desktopshell.h"

#include "api/accountsession.h"
#include "api/apperror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "app/desktop/desktopbridge.h"
#include "app/desktop/launcherbadge.h"
#include "app/desktop/launchfeedback.h"
#include "app/desktop/launchrequest.h"
#include "app/desktop/qrimageprovider.h"
#include "app/desktop/singleinstance.h"
#include "app/desktop/themewatcher.h"
#include "app/desktop/traycontroller.h"
#include "model/appmodel.h"
#include "platform/applicationid.h"
#include "platform/desktopapp.h"
#include "platform/notifications.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"
#include "receive/downloadjob.h"

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QDateTime>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QIcon>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QUrl>

#include <algorithm>
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
    // Wayland's app id and the launcher's badge both name the installed desktop file.
    QGuiApplication::setDesktopFileName(QString::fromLatin1(kApplicationId));
    QQuickStyle::setStyle(QStringLiteral("Fusion"));
    // A bare session names no icon theme; the bundled icons fill what the theme lacks.
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == QLatin1String("hicolor"))
        QIcon::setThemeName(QStringLiteral("Adwaita"));
    QIcon::setFallbackSearchPaths(QIcon::fallbackSearchPaths() << QStringLiteral(":/icons"));
}

bool DesktopShell::open(bool showWindow)
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
    if (!showWindow)
        m_engine->setInitialProperties({{QStringLiteral("visible"), false}});
    m_engine->load(QUrl(QStringLiteral("qrc:/qml/ContentView.qml")));
    if (m_engine->rootObjects().isEmpty())
        return false;
    m_badge = new LauncherBadge(m_model, this);
    m_tray->start();
    m_model->start();
    return true;
}

void DesktopShell::chooseFilesToSend()
{
    m_model->setTab(AppModel::Tab::Send);
    showWindow();
    if (QQuickWindow *shown = window())
        QMetaObject::invokeMethod(shown, "chooseFiles", Qt::QueuedConnection);
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
    showWindow();
}

void DesktopShell::showWindow()
{
    QQuickWindow *shown = window();
    if (!shown)
        return;
    shown->show();
    if (shown->windowState() & Qt::WindowMinimized)
        shown->setWindowStates(shown->windowStates() & ~Qt::WindowMinimized);
    shown->raise();
    shown->requestActivate();
}

QQuickWindow *DesktopShell::window() const
{
    if (!m_engine || m_engine->rootObjects().isEmpty())
        return nullptr;
    return qobject_cast<QQuickWindow *>(m_engine->rootObjects().constFirst());
}

void DesktopShell::handleRequest(const LaunchRequest &request)
{
    QList<QUrl> urls;
    for (const QString &item : request.openItems())
        urls.append(item.startsWith(u'/') ? QUrl::fromLocalFile(item) : QUrl(item));
    if (!urls.isEmpty())
        openUrls(urls);
    switch (request.tab()) {
    case LaunchRequest::Tab::None:
        break;
    case LaunchRequest::Tab::SendFiles:
        chooseFilesToSend();
        break;
    case LaunchRequest::Tab::Receive:
        m_model->setTab(AppModel::Tab::Receive);
        break;
    }
    for (const LaunchRequest::ServiceSend &send : request.serviceSends())
        serviceSend(send.files, send.toDevices);
    if (request.showsWindow())
        showWindow();
    if (!request.launchFeedback().isEmpty())
        LaunchFeedback::complete(request.launchFeedback(),
                                 request.showsWindow() ? window() : nullptr);
}

void DesktopShell::openUrls(const QList<QUrl> &urls)
{
    QStringList files;
    for (const QUrl &url : urls) {
        if (url.isLocalFile())
            files.append(url.toLocalFile());
    }
    if (!files.isEmpty()) {
        m_model->stage(files);
        m_model->setTab(AppModel::Tab::Send);
        showWindow();
    }
    for (const QUrl &url : urls) {
        if (url.scheme() != QLatin1String("lofthaven"))
            continue;
        const QString host = url.host();
        if (host == QLatin1String("send")) {
            m_model->setTab(AppModel::Tab::Send);
        } else if (host == QLatin1String("devices")) {
            m_model->setTab(AppModel::Tab::Devices);
        } else {
            m_model->setTab(AppModel::Tab::Receive);
            m_model->setReceiveInput(url.toString(QUrl::FullyEncoded));
            m_model->lookup();
        }
        showWindow();
    }
}

void DesktopShell::serviceSend(const QStringList &files, bool toDevices, SendJob::Origin origin)
{
    QStringList readable;
    for (const QString &file : files) {
        if (QFileInfo(file).isReadable())
            readable.append(file);
    }
    if (readable.isEmpty()) {
        const QString text = QStringLiteral("No files were selected.");
        m_model->setNotice(text);
        // The window may be hidden: the notification is what the user sees.
        postNotification(text, {}, std::nullopt, false);
        return;
    }
    if (toDevices && !m_model->signedIn()) {
        postNotification(QStringLiteral("Sign in to send to your devices"),
                         QStringLiteral("Open Lofthaven and sign in, then try again."),
                         std::nullopt, false);
        m_model->setTab(AppModel::Tab::Devices);
        showWindow();
        return;
    }
    m_model->startServiceSend(readable, toDevices, origin);
}

namespace {

// The file manager's "Get Lofthaven Link" on nothing readable, with no instance to tell.
bool lacksReadableFiles(const LaunchRequest &request)
{
    for (const LaunchRequest::ServiceSend &send : request.serviceSends()) {
        const bool any =
            std::any_of(send.files.cbegin(), send.files.cend(),
                        [](const QString &file) { return QFileInfo(file).isReadable(); });
        if (!any)
            return true;
    }
    return false;
}

QStringList rawArguments(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return arguments;
}

} // namespace

// Without a GPU render node, Mesa renders OpenGL on the CPU (llvmpipe): its JIT costs about
// 90 MiB of memory and draws this window no faster than Qt Quick's own software renderer.
void DesktopShell::preferSoftwareRenderingWithoutGpu()
{
    if (qEnvironmentVariableIsSet("QT_QUICK_BACKEND") ||
        qEnvironmentVariableIsSet("QSG_RHI_BACKEND"))
        return;
    const QDir dri(QStringLiteral("/dev/dri"));
    if (!dri.entryList({QStringLiteral("renderD*")}, QDir::System).isEmpty())
        return;
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
}

int runDesktop(int &argc, char **argv)
{
    // Paths are made absolute here: the running instance has its own working directory.
    const LaunchRequest request = LaunchRequest::parse(rawArguments(argc, argv), QDir::current());
    // Read before Qt takes the startup id from the environment for its own first window.
    const QString launchFeedback = LaunchFeedback::fromEnvironment();
    LaunchRequest handedOver = request;
    handedOver.setLaunchFeedback(launchFeedback);
    {
        // Handing over needs neither a display nor the window's start-up.
        QCoreApplication probe(argc, argv);
        if (SingleInstance::forward(handedOver.toArguments()))
            return 0;
    }
    if (lacksReadableFiles(request)) {
        std::fputs("lofthaven: No files were selected.\n", stderr);
        return 1;
    }
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("lofthaven: no display to open the window on; the command line works without "
                   "one (lofthaven --help).\n",
                   stderr);
        return 2;
    }
    setDesktopApp(true);
    DesktopShell::preferSoftwareRenderingWithoutGpu();
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

    // Of two processes started together, the one that lost the claim hands over to the winner.
    SingleInstance instance;
    if (instance.claim() == SingleInstance::Claim::Taken) {
        if (SingleInstance::forward(handedOver.toArguments()))
            return 0;
        std::fputs("lofthaven: another Lofthaven is running but did not answer.\n", stderr);
        return 1;
    }

    int status = 1;
    {
        DesktopShell shell;
        if (!shell.open(request.showsWindow())) {
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
        shell.handleRequest(request);
        // Qt ends the launch when it shows the first window; started into the tray, we do.
        if (!request.showsWindow())
            LaunchFeedback::complete(launchFeedback, nullptr);
        instance.setHandler([&shell](const QStringList &arguments) {
            shell.handleRequest(LaunchRequest::parse(arguments, QDir::root()));
        });
        status = app.exec();
    }
    HttpTransport::instance().shutdown();
    return status;
}

} // namespace lofthaven
