#pragma once

#include <QString>

class QObject;
class QQmlEngine;
class QQuickWindow;

namespace lofthaven {

// A top-level window of its own from the QML file at `url` (a qrc: path), in a context that
// adds `owner` under `name` to the engine's. Null, with the reason logged, when it does not
// load; the caller owns the window.
QQuickWindow *createQmlWindow(QQmlEngine *engine, QObject *owner, const QString &name,
                              const QString &url);

} // namespace lofthaven
