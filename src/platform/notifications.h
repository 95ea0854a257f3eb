#pragma once

// Desktop notifications over org.freedesktop.Notifications (not QSystemTrayIcon, which sends
// no actions). An inbox notification offers "Download" (action kDownloadAction); every
// notification has the "default" action (a click on its body). What the user does with a
// notification reaches the handler with the transfer id it was posted with.
//
// Threads: main thread only. Posting never blocks and never fails loudly: with no notification
// server, or the "notifications" preference off, or outside the desktop application, nothing
// happens.

#include <QString>

#include <functional>
#include <optional>

namespace lofthaven {

inline constexpr char kDownloadAction[] = "LH_DOWNLOAD";
inline constexpr char kDefaultAction[] = "default";

struct NotificationEvent
{
    enum class Kind
    {
        Action, // `action` was chosen
        Closed, // dismissed or expired
    };
    Kind kind = Kind::Action;
    QString action;                    // kDownloadAction, kDefaultAction, ...
    std::optional<QString> transferID; // as posted
    bool inbox = false;                // as posted
};

// Posts now when this is the desktop application and the "notifications" preference is on.
void postNotification(const QString &title, const QString &body,
                      const std::optional<QString> &transferID, bool inbox);

// Receives actions and closings of this process's notifications (one handler; the model's).
void setNotificationHandler(std::function<void(const NotificationEvent &)> handler);

} // namespace lofthaven
