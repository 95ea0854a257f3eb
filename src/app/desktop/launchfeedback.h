#pragma once

#include <QString>

class QWindow;

namespace lofthaven {

// What a launcher hands the process it starts so that the launch can end well: an XDG
// activation token on Wayland, a startup-notification id on X11. When a second start hands its
// request to the running instance and exits, the launcher would keep its busy cursor or
// spinner until it times out, and the window might not be allowed to come forward; the running
// instance finishes the launch with the token instead.
class LaunchFeedback
{
public:
    // The token in this process's environment, or an empty string when there is none or it is
    // not the printable text launchers write (at most 256 characters).
    static QString fromEnvironment();

    // Tells the launcher the launch is complete and, when `window` is shown, asks for it to
    // come forward with the launcher's permission rather than as a focus thief.
    static void complete(const QString &token, QWindow *window);
};

} // namespace lofthaven
