#include "app/progressprinter.h"

#include "platform/bytecount.h"

#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace lofthaven {

namespace {
constexpr int kPlainLineEveryMs = 5000;

QString timeLeft(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0)
        return {};
    const qint64 s = qint64(std::ceil(seconds));
    if (s >= 3600)
        return QStringLiteral("%1:%2:%3 left")
            .arg(s / 3600)
            .arg((s / 60) % 60, 2, 10, QLatin1Char('0'))
            .arg(s % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2 left").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}
} // namespace

ProgressPrinter::ProgressPrinter(QString verb, qint64 total,
                                 std::shared_ptr<ProgressCounter> counter)
    : m_verb(std::move(verb))
    , m_total(total)
    , m_counter(std::move(counter))
    , m_terminal(::isatty(STDERR_FILENO) == 1)
{
    m_timer.setInterval(250);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { tick(); });
}

ProgressPrinter::~ProgressPrinter()
{
    if (m_running)
        stop();
}

QString ProgressPrinter::describe(const QString &verb, qint64 done, qint64 total, double speed)
{
    QString line = verb + QLatin1Char(' ') + formatByteCount(done) + QStringLiteral(" of ") +
                   formatByteCount(total);
    if (total > 0)
        line += QStringLiteral(" (%1%)").arg(int(100.0 * double(done) / double(total)));
    if (speed > 0) {
        line += QStringLiteral(", ") + formatByteCount(qint64(speed)) + QStringLiteral("/s");
        const QString left = timeLeft(double(total - done) / speed);
        if (done < total && !left.isEmpty())
            line += QStringLiteral(", ") + left;
    }
    return line;
}

void ProgressPrinter::start()
{
    m_running = true;
    m_sinceLine.start();
    m_timer.start();
}

void ProgressPrinter::tick()
{
    const qint64 done = m_counter->total();
    m_meter.update(done);
    const QString line = describe(m_verb, done, m_total, m_meter.speed());
    if (m_terminal) {
        const QByteArray text = line.toUtf8();
        const int pad = std::max(0, m_lastWidth - int(text.size()));
        std::fprintf(stderr, "\r%s%*s", text.constData(), pad, "");
        m_lastWidth = int(text.size());
    } else if (m_sinceLine.elapsed() >= kPlainLineEveryMs) {
        std::fprintf(stderr, "%s\n", line.toUtf8().constData());
        m_sinceLine.restart();
    } else {
        return;
    }
    std::fflush(stderr);
}

void ProgressPrinter::stop()
{
    if (!m_running)
        return;
    m_running = false;
    m_timer.stop();
    if (m_terminal && m_lastWidth > 0) {
        std::fprintf(stderr, "\r%*s\r", m_lastWidth, "");
        std::fflush(stderr);
    }
}

} // namespace lofthaven
