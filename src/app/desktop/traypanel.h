#pragma once

#include "model/sendjob.h"

#include <QObject>
#include <QPointer>
#include <QQuickWindow>
#include <QStringList>
#include <QVariantList>

class QQmlEngine;

namespace lofthaven {

class AppModel;

// The small window the tray icon's left click toggles (TrayPanel.qml): drop zones that send
// with the tray as origin, the unseen inbox count, recent links and the app's commands. Made on
// first use in the screens' engine; handed to it as "panel". Keeps only the jobs its own drops
// started, to show their progress. Main thread only.
class TrayPanel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(lofthaven::SendJob *linkJob READ linkJob NOTIFY linkJobChanged)
    Q_PROPERTY(lofthaven::SendJob *devicesJob READ devicesJob NOTIFY devicesJobChanged)
    Q_PROPERTY(QVariantList recent READ recent NOTIFY recentChanged)

public:
    static constexpr int kRecentEntries = 5;

    TrayPanel(AppModel *model, QQmlEngine *engine, QObject *parent = nullptr);
    ~TrayPanel() override;

    SendJob *linkJob() const { return m_linkJob; }
    SendJob *devicesJob() const { return m_devicesJob; }
    // The newest unexpired sends ({name, url}), at most kRecentEntries.
    QVariantList recent() const { return m_recent; }

    // Shows the panel near the pointer, or hides it when shown.
    void toggle();
    void show();
    void hide();
    bool isShown() const;
    // The panel's window once made.
    QQuickWindow *window() const { return m_window; }

    // Files dropped on a zone (paths or file: URLs): sent as a new transfer whose link is
    // copied when ready, or to the user's devices.
    Q_INVOKABLE void sendForLink(const QStringList &paths);
    Q_INVOKABLE void sendToDevices(const QStringList &paths);

Q_SIGNALS:
    void linkJobChanged();
    void devicesJobChanged();
    void recentChanged();
    void openWindowRequested();
    void settingsRequested();
    void quitRequested();
    void devicesNeedSignIn(const QStringList &paths);

private:
    bool load();
    void send(QStringList paths, bool toSelf);
    void updateRecent();

    AppModel *m_model;
    QQmlEngine *m_engine;
    QPointer<QQuickWindow> m_window;
    QPointer<SendJob> m_linkJob;
    QPointer<SendJob> m_devicesJob;
    QVariantList m_recent;
};

} // namespace lofthaven
