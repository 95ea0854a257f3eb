#pragma once

#include <QObject>

#include <optional>

namespace lofthaven {

class AppModel;

// The count of new devices-inbox items on the launcher icon: the
// com.canonical.Unity.LauncherEntry Update signal that Plasma's task manager and Dash to Dock
// read. Hidden when nothing is new or nobody is signed in. Docks forget the entry when this
// process leaves the bus, so there is nothing to clear at exit.
//
// Threads: main thread.
class LauncherBadge : public QObject
{
    Q_OBJECT

public:
    // Follows `model` from now on and announces the current count at once.
    explicit LauncherBadge(AppModel *model, QObject *parent = nullptr);

    static QString applicationUri();

private:
    void publish();

    AppModel *m_model;
    std::optional<int> m_published;
};

} // namespace lofthaven
