#include "app/desktop/traypanel.h"

#include "app/desktop/qmlwindow.h"
#include "model/appmodel.h"
#include "model/detach.h"

#include <QCursor>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QScreen>

#include <algorithm>

namespace lofthaven {

TrayPanel::TrayPanel(AppModel *model, QQmlEngine *engine, QObject *parent)
    : QObject(parent)
    , m_model(model)
    , m_engine(engine)
{
    HistoryList *history = m_model->history();
    connect(history, &HistoryList::modelReset, this, &TrayPanel::updateRecent);
    connect(history, &HistoryList::rowsInserted, this, &TrayPanel::updateRecent);
    connect(history, &HistoryList::rowsRemoved, this, &TrayPanel::updateRecent);
    connect(history, &HistoryList::dataChanged, this, &TrayPanel::updateRecent);
    updateRecent();
}

void TrayPanel::updateRecent()
{
    QVariantList recent;
    for (const HistoryEntry &entry :
         unexpiredEntries(m_model->history()->entries(), double(m_model->now().toMSecsSinceEpoch()),
                          kRecentEntries))
        recent.append(
            QVariantMap{{QStringLiteral("name"), entry.name}, {QStringLiteral("url"), entry.url}});
    if (recent == m_recent)
        return;
    m_recent = recent;
    Q_EMIT recentChanged();
}

TrayPanel::~TrayPanel()
{
    delete m_window;
}

bool TrayPanel::load()
{
    if (m_window)
        return true;
    m_window = createQmlWindow(m_engine, this, QStringLiteral("panel"),
                               QStringLiteral("qrc:/qml/TrayPanel.qml"));
    return m_window != nullptr;
}

void TrayPanel::toggle()
{
    if (isShown())
        hide();
    else
        show();
}

void TrayPanel::show()
{
    // Links expire while the panel is closed.
    updateRecent();
    if (!load())
        return;
    // The tray tells us nothing about where its icon is, so open beside the pointer, which
    // has just clicked it, and keep the whole panel on that screen.
    const QPoint pointer = QCursor::pos();
    QScreen *screen = QGuiApplication::screenAt(pointer);
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(pointer, QSize(1, 1));
    const QSize size(m_window->width(), m_window->height());
    int x = pointer.x() - size.width() / 2;
    int y = pointer.y() + 12;
    if (y + size.height() > area.bottom())
        y = pointer.y() - 12 - size.height();
    x = std::clamp(x, area.left(), std::max(area.left(), area.right() - size.width()));
    y = std::clamp(y, area.top(), std::max(area.top(), area.bottom() - size.height()));
    m_window->setPosition(x, y);
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}

void TrayPanel::hide()
{
    if (m_window)
        m_window->hide();
}

bool TrayPanel::isShown() const
{
    return m_window && m_window->isVisible();
}

void TrayPanel::sendForLink(const QStringList &paths)
{
    send(paths, false);
}

void TrayPanel::sendToDevices(const QStringList &paths)
{
    send(paths, true);
}

void TrayPanel::send(QStringList paths, bool toSelf)
{
    if (toSelf && !m_model->signedIn()) {
        Q_EMIT devicesNeedSignIn(paths);
        return;
    }
    auto sending = [](QPointer<TrayPanel> self, AppModel *model, QStringList paths,
                      bool toSelf) -> QCoro::Task<void> {
        auto starting = model->serviceSend(std::move(paths), toSelf, SendJob::Origin::MenuBar);
        SendJob *job = co_await starting;
        if (!self || !job)
            co_return;
        if (toSelf) {
            self->m_devicesJob = job;
            Q_EMIT self->devicesJobChanged();
        } else {
            self->m_linkJob = job;
            Q_EMIT self->linkJobChanged();
        }
    };
    detach(sending(QPointer<TrayPanel>(this), m_model, std::move(paths), toSelf));
}

} // namespace lofthaven
