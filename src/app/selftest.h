#pragma once

#include <QByteArray>
#include <QString>
#include <functional>

namespace lofthaven {

// The headless self-test: builds real files, runs them through the send engine and checks the
// archive with independent tools. Each check prints "  ✓ label" or "  ✗ label"; a failed
// check throws AppError(label). Blocking: run it off the main thread.
//
// The online round trip plugs in with setOnlineStep(); it runs after the offline checks
// and may use root(), helloPath(), tripPath() and the bytes written for Trip.
class SelfTest
{
public:
    using Step = std::function<void(SelfTest &)>;

    // workFolder: where the run's root folder is made (created if missing).
    explicit SelfTest(QString workFolder);

    void setOnlineStep(Step step) { m_onlineStep = std::move(step); }

    // Runs everything, prints the result line and returns the exit status (0 or 1).
    // keepRoot: leave the root in place after a successful run (for inspection).
    int run(bool online, bool keepRoot);

    void section(const QString &header);
    void check(const QString &label, bool passed);

    QString root() const { return m_root; }
    QString helloPath() const;
    QString tripPath() const;
    QByteArray aBytes() const { return m_aBytes; }
    QByteArray subBytes() const { return m_subBytes; }

    // "/usr/bin/unzip" and "/usr/bin/bsdtar", or LOFTHAVEN_UNZIP / LOFTHAVEN_BSDTAR.
    static QString unzipTool();
    static QString bsdtarTool();
    // Runs a tool with its output sent to the null device; returns its exit status.
    // Throws AppError when it cannot be launched or does not exit normally.
    static int runTool(const QString &program, const QStringList &arguments);

private:
    void prepare();
    void runOffline();

    QString m_workFolder;
    QString m_root;
    QByteArray m_aBytes;
    QByteArray m_subBytes;
    Step m_onlineStep;
};

// Prints one line to standard output as UTF-8 and flushes it.
void printLine(const QString &line);

} // namespace lofthaven
