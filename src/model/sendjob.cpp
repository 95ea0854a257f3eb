#include "model/sendjob.h"

#include <QUuid>

namespace lofthaven {

SendJob::SendJob(SendPlan plan, SendOptions options, Origin origin, QObject *parent)
    : QObject(parent)
    , m_id(QUuid::createUuid().toString(QUuid::WithoutBraces))
    , m_plan(std::move(plan))
    , m_options(std::move(options))
    , m_origin(origin)
    , m_counter(std::make_shared<ProgressCounter>())
{}

bool SendJob::isActive() const
{
    return m_state == State::Preparing || m_state == State::Uploading ||
           m_state == State::Finishing;
}

double SendJob::secondsLeft() const
{
    if (m_speed <= 0)
        return -1;
    return double(std::max<qint64>(0, m_plan.size - m_sent)) / m_speed;
}

void SendJob::setState(State state)
{
    if (m_state == state)
        return;
    m_state = state;
    Q_EMIT stateChanged();
}

void SendJob::finish(HistoryEntry entry)
{
    m_entry = std::move(entry);
    m_state = State::Done;
    Q_EMIT stateChanged();
}

void SendJob::fail(QString message)
{
    m_message = std::move(message);
    m_state = State::Failed;
    Q_EMIT stateChanged();
}

void SendJob::setProgress(qint64 sent, double speed)
{
    if (sent == m_sent && speed == m_speed)
        return;
    m_sent = sent;
    m_speed = speed;
    Q_EMIT progressChanged();
}

} // namespace lofthaven
