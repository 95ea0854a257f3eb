#pragma once

#include <QObject>
#include <QStringList>

#include <functional>

class QLocalServer;

namespace lofthaven {

class ApplicationInterface;

// One window process per session. The first process owns the D-Bus name
// org.lofthaven.Lofthaven and serves Open(as) at /org/lofthaven/Lofthaven, beside
// org.freedesktop.Application (ApplicationInterface) for launchers; later processes
// hand their arguments to it and exit. Without a session bus an abstract-namespace local
// socket, named after the user and the home folder, does the same. Owning the name (or
// binding the socket) is atomic, so of two processes started together exactly one wins.
//
// Threads: main thread; needs a QCoreApplication.
class SingleInstance : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.lofthaven.Lofthaven")

public:
    enum class Claim
    {
        Owned,       // this process is the instance
        Taken,       // another process is
        Unavailable, // neither a bus nor a socket: run alone
    };

    explicit SingleInstance(QObject *parent = nullptr);
    ~SingleInstance() override;

    Claim claim();
    // Arguments that arrived before the handler was set are handed over when it is.
    void setHandler(std::function<void(const QStringList &)> handler);

    // Hands `arguments` to the running instance; false when there is none (or it did not
    // answer within the time limit).
    static bool forward(const QStringList &arguments);

    static QString localSocketName();

public Q_SLOTS:
    Q_SCRIPTABLE void Open(const QStringList &arguments);

private:
    void readConnection();

    QLocalServer *m_server = nullptr;
    ApplicationInterface *m_application = nullptr;
    bool m_registered = false;
    std::function<void(const QStringList &)> m_handler;
    QList<QStringList> m_pending;
};

} // namespace lofthaven
