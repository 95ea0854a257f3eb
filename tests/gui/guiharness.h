#pragma once

// Driving the real window in tests: the private HOME, the application object on a real
// display (Xvfb), items found by objectName, clicks and drops as the window receives them, and
// screenshots of each state when LOFTHAVEN_SCREENSHOTS names a folder.
#include "api/serviceorigin.h"
#include "app/desktop/desktopshell.h"
#include "isolatedhome.h"
#include "localservice.h"
#include "platform/preferences.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QGuiApplication>
#include <QMimeData>
#include <QPainter>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace lofthaven::testing {

// Every item below `item` (popups included: they live under the window's overlay).
inline QQuickItem *findItem(QQuickItem *item, const QString &name, bool visibleOnly = true)
{
    if (!item)
        return nullptr;
    if (item->objectName() == name && (!visibleOnly || item->isVisible()))
        return item;
    const QList<QQuickItem *> children = item->childItems();
    for (QQuickItem *child : children) {
        if (QQuickItem *found = findItem(child, name, visibleOnly))
            return found;
    }
    return nullptr;
}

inline QQuickItem *findItem(QQuickWindow *window, const QString &name, bool visibleOnly = true)
{
    return window ? findItem(window->contentItem(), name, visibleOnly) : nullptr;
}

// The visible item named `name` whose property `key` holds `value` (a row of a list).
inline QQuickItem *findItemWith(QQuickItem *item, const QString &name, const char *key,
                                const QVariant &value)
{
    if (!item || !item->isVisible())
        return nullptr;
    if (item->objectName() == name && item->property(key) == value)
        return item;
    const QList<QQuickItem *> children = item->childItems();
    for (QQuickItem *child : children) {
        if (QQuickItem *found = findItemWith(child, name, key, value))
            return found;
    }
    return nullptr;
}

inline QString textOf(QQuickItem *item)
{
    return item ? item->property("text").toString() : QString();
}

// A left click in the middle of the item, through the window's event delivery.
inline bool click(QQuickItem *item)
{
    if (!item || !item->isVisible() || !item->isEnabled() || !item->window())
        return false;
    // Let a layout that just changed settle before aiming at the item.
    QTest::qWait(50);
    item->forceActiveFocus();
    const QPoint centre =
        item->mapToScene(QPointF(item->width() / 2, item->height() / 2)).toPoint();
    QTest::mouseClick(item->window(), Qt::LeftButton, Qt::NoModifier, centre);
    return true;
}

// Types into a text field as a person would (focus, keys), so the screens' edit handlers run.
inline bool typeInto(QQuickItem *field, const QString &text)
{
    if (!click(field))
        return false;
    QTest::keyClick(field->window(), Qt::Key_A, Qt::ControlModifier);
    for (const QChar c : text)
        QTest::keyClick(field->window(), c.toLatin1());
    return true;
}

// Drops local files on the window at the item's centre: enter, move, drop with text/uri-list.
inline bool dropFiles(QQuickItem *target, const QStringList &paths)
{
    if (!target || !target->window())
        return false;
    QQuickWindow *window = target->window();
    const QPointF at = target->mapToScene(QPointF(target->width() / 2, target->height() / 2));
    QMimeData data;
    QList<QUrl> urls;
    for (const QString &path : paths)
        urls.append(QUrl::fromLocalFile(path));
    data.setUrls(urls);
    QDragEnterEvent enter(at.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &enter);
    QDragMoveEvent move(at.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &move);
    QDropEvent drop(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &drop);
    return drop.isAccepted();
}

// What zbarimg reads from the part of the window the item covers ("" when nothing).
inline QString decodeQr(QQuickItem *item, const QString &folder)
{
    if (!item || !item->window())
        return {};
    const QImage shot = item->window()->grabWindow();
    const qreal ratio = item->window()->effectiveDevicePixelRatio();
    const QRectF rect = item->mapRectToScene(QRectF(0, 0, item->width(), item->height()));
    const QRect pixels((rect.topLeft() * ratio).toPoint(), (rect.size() * ratio).toSize());
    const QString file = QDir(folder).filePath(QStringLiteral("qr.png"));
    // A white margin around the code, as on paper.
    QImage framed(pixels.size() + QSize(40, 40), QImage::Format_RGB32);
    framed.fill(Qt::white);
    {
        QPainter painter(&framed);
        painter.drawImage(QPoint(20, 20), shot.copy(pixels));
    }
    if (!framed.save(file))
        return {};
    QProcess zbar;
    zbar.start(QStringLiteral("zbarimg"), {QStringLiteral("--raw"), QStringLiteral("-q"), file});
    if (!zbar.waitForFinished(30000))
        return {};
    return QString::fromUtf8(zbar.readAllStandardOutput()).trimmed();
}

// Takes the links the app opens (browser, mail) instead of the desktop, so a test never
// starts a browser and can check what would have been opened.
class OpenedUrls : public QObject
{
    Q_OBJECT
public:
    OpenedUrls()
    {
        for (const char *scheme : {"http", "https", "mailto", "file"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "open");
    }
    ~OpenedUrls() override
    {
        for (const char *scheme : {"http", "https", "mailto", "file"})
            QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
    }
    QList<QUrl> urls;
public Q_SLOTS:
    void open(const QUrl &url) { urls.append(url); }
};

// Saves the window as NAME-THEME.png into LOFTHAVEN_SCREENSHOTS, when set.
inline void screenshot(QQuickWindow *window, const QString &name)
{
    const QString folder = qEnvironmentVariable("LOFTHAVEN_SCREENSHOTS");
    if (folder.isEmpty() || !window)
        return;
    QDir().mkpath(folder);
    // Let bindings, layouts and images settle into a frame.
    QTest::qWait(400);
    const QString theme = qEnvironmentVariable("LOFTHAVEN_THEME", QStringLiteral("light"));
    window->grabWindow().save(
        QDir(folder).filePath(name + QLatin1Char('-') + theme + QStringLiteral(".png")));
}

// The real window over the real model, against a local service of its own: what every window
// test holds and how it starts.
class WindowTest : public QObject
{
protected:
    explicit WindowTest(LocalService::Options options = {64 * 1024, {}})
        : m_service(std::move(options))
    {}

    // The service up and the shell's origin pointed at it.
    bool startService()
    {
        if (!m_service.start())
            return false;
        ServiceOrigin::setUrl(m_service.origin());
        return true;
    }
    // The window built and on screen.
    bool openWindow()
    {
        m_shell = std::make_unique<DesktopShell>();
        if (!m_shell->open())
            return false;
        m_window = m_shell->window();
        return m_window && QTest::qWaitForWindowExposed(m_window);
    }
    QQuickItem *item(const QString &name) { return findItem(m_window, name); }

    LocalService m_service;
    QTemporaryDir m_files;
    std::unique_ptr<DesktopShell> m_shell;
    QQuickWindow *m_window = nullptr;
};

} // namespace lofthaven::testing

// A test main with the private HOME in place, the chosen theme stored, and a real
// QGuiApplication set up as the app sets itself up.
#define LOFTHAVEN_GUI_TEST_MAIN(TestObject)                                                        \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        lofthaven::testing::IsolatedHome home;                                                     \
        QGuiApplication app(argc, argv);                                                           \
        lofthaven::DesktopShell::setUpApplication();                                               \
        lofthaven::registerDefaultSettings();                                                      \
        lofthaven::setStringPreference(                                                            \
            lofthaven::Preference::Theme,                                                          \
            qEnvironmentVariable("LOFTHAVEN_THEME", QStringLiteral("light")));                     \
        lofthaven::testing::OpenedUrls opened;                                                     \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
