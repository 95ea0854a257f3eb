#include "app/desktop/qmlwindow.h"

#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QUrl>

namespace lofthaven {

QQuickWindow *createQmlWindow(QQmlEngine *engine, QObject *owner, const QString &name,
                              const QString &url)
{
    auto *context = new QQmlContext(engine->rootContext(), owner);
    context->setContextProperty(name, owner);
    QQmlComponent component(engine, QUrl(url));
    QObject *made = component.create(context);
    auto *window = qobject_cast<QQuickWindow *>(made);
    if (!window) {
        qWarning("lofthaven: %s could not be loaded: %s", qPrintable(url),
                 qPrintable(component.errorString()));
        delete made;
    }
    return window;
}

} // namespace lofthaven
