#include "app/desktop/launchfeedback.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QWindow>

#ifdef LOFTHAVEN_HAVE_XCB
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#endif

namespace lofthaven {

namespace {

constexpr qsizetype kMaxTokenLength = 256;

bool wellFormed(const QString &token)
{
    if (token.isEmpty() || token.size() > kMaxTokenLength)
        return false;
    return std::all_of(token.cbegin(), token.cend(),
                       [](QChar c) { return c.unicode() >= 0x20 && c.unicode() < 0x7F; });
}

bool onWayland()
{
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

#ifdef LOFTHAVEN_HAVE_XCB
xcb_atom_t internAtom(xcb_connection_t *connection, const char *name)
{
    const xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(connection, 0, uint16_t(std::strlen(name)), name);
    xcb_intern_atom_reply_t *reply = xcb_intern_atom_reply(connection, cookie, nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}

// The startup-notification "remove" message, broadcast on the root window in pieces of 20 bytes
// as every monitor of launches (panels, docks, the window manager) expects it.
void sendStartupRemoved(xcb_connection_t *connection, xcb_window_t root, const QString &id)
{
    QByteArray message = "remove: ID=";
    for (const char c : id.toLatin1()) {
        if (c == ' ' || c == '"' || c == '\\')
            message += '\\';
        message += c;
    }
    message += '\0';
    const xcb_atom_t begin = internAtom(connection, "_NET_STARTUP_INFO_BEGIN");
    const xcb_atom_t more = internAtom(connection, "_NET_STARTUP_INFO");
    for (qsizetype sent = 0; sent < message.size(); sent += 20) {
        xcb_client_message_event_t event{};
        event.response_type = XCB_CLIENT_MESSAGE;
        event.format = 8;
        event.window = root;
        event.type = sent == 0 ? begin : more;
        std::memcpy(event.data.data8, message.constData() + sent,
                    size_t(std::min<qsizetype>(20, message.size() - sent)));
        xcb_send_event(connection, 0, root, XCB_EVENT_MASK_PROPERTY_CHANGE,
                       reinterpret_cast<const char *>(&event));
    }
}

// _NET_ACTIVE_WINDOW with the time of the click that started the launch, which window managers
// that prevent focus stealing accept where the time of our own last event would not do.
void requestActiveWindow(xcb_connection_t *connection, xcb_window_t root, xcb_window_t window,
                         uint32_t time)
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = internAtom(connection, "_NET_ACTIVE_WINDOW");
    event.data.data32[0] = 1; // from an application
    event.data.data32[1] = time;
    xcb_send_event(connection, 0, root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&event));
}

void completeOnX11(const QString &id, QWindow *window)
{
    auto *x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t *connection = x11 ? x11->connection() : nullptr;
    if (!connection)
        return;
    const xcb_setup_t *setup = xcb_get_setup(connection);
    const xcb_window_t root = xcb_setup_roots_iterator(setup).data->root;
    sendStartupRemoved(connection, root, id);
    static const QRegularExpression launchTime(QStringLiteral("_TIME(\\d+)$"));
    const QRegularExpressionMatch time = launchTime.match(id);
    if (window && window->isVisible() && time.hasMatch())
        requestActiveWindow(connection, root, xcb_window_t(window->winId()),
                            time.captured(1).toUInt());
    xcb_flush(connection);
}
#endif

} // namespace

QString LaunchFeedback::fromEnvironment()
{
    const char *const name = qEnvironmentVariableIsSet("WAYLAND_DISPLAY") &&
                                     qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN")
                                 ? "XDG_ACTIVATION_TOKEN"
                                 : "DESKTOP_STARTUP_ID";
    const QString token = qEnvironmentVariable(name);
    return wellFormed(token) ? token : QString();
}

void LaunchFeedback::complete(const QString &token, QWindow *window)
{
    if (!wellFormed(token))
        return;
    if (onWayland()) {
        // Qt's Wayland window reads the token from the environment when asked to activate,
        // then forgets it.
        if (window && window->isVisible()) {
            qputenv("XDG_ACTIVATION_TOKEN", token.toLatin1());
            window->requestActivate();
            qunsetenv("XDG_ACTIVATION_TOKEN");
        }
        return;
    }
#ifdef LOFTHAVEN_HAVE_XCB
    if (QGuiApplication::platformName() == QLatin1String("xcb"))
        completeOnX11(token, window);
#endif
}

} // namespace lofthaven
