#pragma once

#include "api/apiclient.h"
#include "api/wirerecords.h"
#include "platform/progresscounter.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>
#include <stop_token>

namespace lofthaven {

// One download as the screens and the command line see it. Lives on the main thread.
//
//   starting ─▶ downloading ─▶ (moved) ─┬─▶ done(file)
//      │             │                   └─▶ unzipping ─┬─▶ done(folder)
//      │             ├─▶ failed(message)                └─▶ failed(message)
//      └─────────────┴─▶ cancelled
class DownloadJob : public QObject
{
    Q_OBJECT
public:
    enum class State
    {
        Starting,
        Downloading,
        Unzipping,
        Done,
        Failed,
        Cancelled
    };
    Q_ENUM(State)

    DownloadJob(QString id, QString name, qint64 size, QObject *parent = nullptr);

    QString id() const { return m_id; }
    QString name() const { return m_name; }
    qint64 size() const { return m_size; }
    State state() const { return m_state; }
    bool isActive() const;
    // The finished file or folder (done), or the user-facing message (failed).
    QString result() const { return m_result; }
    QString message() const { return m_message; }
    qint64 received() const { return m_received; }
    double speed() const { return m_speed; }
    std::shared_ptr<ProgressCounter> counter() const { return m_counter; }

    void setState(State state, QString detail = {});
    void setProgress(qint64 received, double speed);
    void cancel() { m_stop.request_stop(); }
    std::stop_token stopToken() const { return m_stop.get_token(); }

Q_SIGNALS:
    void stateChanged(lofthaven::DownloadJob::State state);
    void progressChanged(qint64 received, double speed);

private:
    QString m_id;
    QString m_name;
    qint64 m_size = 0;
    State m_state = State::Starting;
    QString m_result;
    QString m_message;
    qint64 m_received = 0;
    double m_speed = 0;
    std::shared_ptr<ProgressCounter> m_counter;
    std::stop_source m_stop;
};

struct DownloadPlan
{
    TransferMeta meta;
    std::optional<QString> unlockToken;
    bool unzip = false;
    QString destinationFolder;
    QString partialFile;
};

// Unzip when asked and the transfer is a zipped folder (or, when the service does not say,
// its name ends in ".zip").
bool shouldUnzip(const TransferMeta &meta, bool unzipWanted);

// Runs one download from start to its final state: fetch into the partial file with resume,
// move into place under a safe free name, unzip when planned. Never throws; the job's state
// carries the outcome. A progress ticker publishes bytes and speed every 250 ms.
QCoro::Task<void> runDownload(DownloadJob *job, APIClient client, DownloadPlan plan);

} // namespace lofthaven
