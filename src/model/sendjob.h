#pragma once

#include "model/historyentry.h"
#include "platform/progresscounter.h"
#include "send/sendoptions.h"
#include "send/sendplan.h"

#include <QObject>
#include <QString>

#include <memory>
#include <optional>
#include <stop_token>

namespace lofthaven {

// One upload as the screens see it. Lives on the main thread; AppModel runs it.
//
//   preparing ─▶ uploading ─▶ finishing ─▶ done(entry)
//       └────────────┴─────────────┴─▶ failed(message) | cancelled
class SendJob : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString id READ id CONSTANT)
    Q_PROPERTY(QString name READ name CONSTANT)
    Q_PROPERTY(qint64 size READ size CONSTANT)
    Q_PROPERTY(int fileCount READ fileCount CONSTANT)
    Q_PROPERTY(bool isZip READ isZip CONSTANT)
    Q_PROPERTY(bool toSelf READ toSelf CONSTANT)
    Q_PROPERTY(Origin origin READ origin CONSTANT)
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(bool active READ isActive NOTIFY stateChanged)
    Q_PROPERTY(QString message READ message NOTIFY stateChanged)
    Q_PROPERTY(QString code READ code NOTIFY stateChanged)
    Q_PROPERTY(QString url READ url NOTIFY stateChanged)
    Q_PROPERTY(qint64 sent READ sent NOTIFY progressChanged)
    Q_PROPERTY(double speed READ speed NOTIFY progressChanged)
    Q_PROPERTY(double secondsLeft READ secondsLeft NOTIFY progressChanged)

public:
    enum class Origin
    {
        Window,
        Service,
        MenuBar,
        Devices
    };
    Q_ENUM(Origin)

    enum class State
    {
        Preparing,
        Uploading,
        Finishing,
        Done,
        Failed,
        Cancelled
    };
    Q_ENUM(State)

    SendJob(SendPlan plan, SendOptions options, Origin origin, QObject *parent = nullptr);

    QString id() const { return m_id; }
    QString name() const { return m_plan.name; }
    qint64 size() const { return m_plan.size; }
    int fileCount() const { return int(m_plan.items.size()); }
    bool isZip() const { return m_plan.isZip; }
    bool toSelf() const { return m_options.toSelf; }
    Origin origin() const { return m_origin; }
    const SendPlan &plan() const { return m_plan; }
    const SendOptions &options() const { return m_options; }
    std::shared_ptr<ProgressCounter> counter() const { return m_counter; }

    State state() const { return m_state; }
    bool isActive() const;
    QString message() const { return m_message; }
    // The history entry of a finished send.
    const std::optional<HistoryEntry> &entry() const { return m_entry; }
    QString code() const { return m_entry ? m_entry->code : QString(); }
    QString url() const { return m_entry ? m_entry->url : QString(); }
    qint64 sent() const { return m_sent; }
    double speed() const { return m_speed; }
    // Seconds until done at the current speed; -1 while the speed is unknown.
    double secondsLeft() const;

    void setState(State state);
    void finish(HistoryEntry entry);
    void fail(QString message);
    void setProgress(qint64 sent, double speed);

    Q_INVOKABLE void cancel() { m_stop.request_stop(); }
    std::stop_token stopToken() const { return m_stop.get_token(); }
    bool cancelRequested() const { return m_stop.stop_requested(); }

Q_SIGNALS:
    void stateChanged();
    void progressChanged();

private:
    QString m_id;
    SendPlan m_plan;
    SendOptions m_options;
    Origin m_origin;
    std::shared_ptr<ProgressCounter> m_counter;
    State m_state = State::Preparing;
    QString m_message;
    std::optional<HistoryEntry> m_entry;
    qint64 m_sent = 0;
    double m_speed = 0;
    std::stop_source m_stop;
};

} // namespace lofthaven
