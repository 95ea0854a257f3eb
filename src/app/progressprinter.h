#pragma once

#include "platform/progresscounter.h"
#include "platform/speedmeter.h"

#include <QElapsedTimer>
#include <QString>
#include <QTimer>

#include <memory>

namespace lofthaven {

// Shows a transfer's progress on standard error: redrawn in place on a terminal, as an
// occasional plain line otherwise (logs and pipes).
class ProgressPrinter
{
public:
    ProgressPrinter(QString verb, qint64 total, std::shared_ptr<ProgressCounter> counter);
    ~ProgressPrinter();

    void start();
    // Prints the final state and ends the line.
    void stop();

    static QString describe(const QString &verb, qint64 done, qint64 total, double speed);

private:
    void tick();

    QString m_verb;
    qint64 m_total;
    std::shared_ptr<ProgressCounter> m_counter;
    SpeedMeter m_meter;
    QTimer m_timer;
    QElapsedTimer m_sinceLine;
    bool m_terminal;
    bool m_running = false;
    int m_lastWidth = 0;
};

} // namespace lofthaven
