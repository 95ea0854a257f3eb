#include "app/desktop/singleinstance.h"

#include "app/desktop/applicationinterface.h"
#include "platform/applicationid.h"

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDataStream>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace lofthaven {

namespace {

const char *const kObjectPath = "/org/lofthaven/Lofthaven";
const char *const kInterface = "org.lofthaven.Lofthaven";
// Long enough for an instance that is still loading its window to take the call.
constexpr int kForwardTimeoutMs = 25000;
constexpr char kAcknowledged = 1;

// Abstract sockets have no file permissions: only our own user may hand us files to send.
bool fromThisUser(const QLocalSocket *socket)
{
    struct ucred peer
    {
    };
    socklen_t size = sizeof(peer);
    return getsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer, &size) ==
               0 &&
           peer.uid == getuid();
}

QString serviceName()
{
    return QString::fromLatin1(kApplicationId);
}

bool forwardOverBus(QDBusConnection bus, const QStringList &arguments)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(serviceName(), QString::fromLatin1(kObjectPath),
                                       QString::fromLatin1(kInterface), QStringLiteral("Open"));
    call << arguments;
    // Nobody owns the name: an error at once. The name is activatable (the desktop entry
    // starts Lofthaven over D-Bus), but a start that finds no instance becomes the instance.
    call.setAutoStartService(false);
    const QDBusMessage reply = bus.call(call, QDBus::Block, kForwardTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage;
}

bool forwardOverSocket(const QStringList &arguments)
{
    QLocalSocket socket;
    socket.setSocketOptions(QLocalSocket::AbstractNamespaceOption);
    socket.connectToServer(SingleInstance::localSocketName());
    if (!socket.waitForConnected(kForwardTimeoutMs))
        return false;
    QByteArray message;
    QDataStream out(&message, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_6_4);
    out << arguments;
    socket.write(message);
    if (!socket.waitForBytesWritten(kForwardTimeoutMs))
        return false;
    // The instance answers once it has read everything.
    while (socket.bytesAvailable() < 1) {
        if (!socket.waitForReadyRead(kForwardTimeoutMs))
            return false;
    }
    return socket.read(1).at(0) == kAcknowledged;
}

} // namespace

SingleInstance::SingleInstance(QObject *parent)
    : QObject(parent)
{}

SingleInstance::~SingleInstance()
{
    if (m_registered) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        bus.unregisterService(serviceName());
        bus.unregisterObject(QString::fromLatin1(kObjectPath));
    }
}

QString SingleInstance::localSocketName()
{
    // Abstract sockets are shared by the whole machine: the user and the home folder make
    // the name one session's own.
    const QByteArray home =
        QCryptographicHash::hash(QDir::homePath().toUtf8(), QCryptographicHash::Sha256)
            .toHex()
            .left(12);
    return QString::fromLatin1(kApplicationId) + u'-' + QString::number(getuid()) + u'-' +
           QString::fromLatin1(home);
}

SingleInstance::Claim SingleInstance::claim()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        // The object first, so that a call arriving the moment the name is ours finds it.
        if (!m_application)
            m_application = new ApplicationInterface(this);
        if (!bus.registerObject(QString::fromLatin1(kObjectPath), this,
                                QDBusConnection::ExportScriptableSlots |
                                    QDBusConnection::ExportAdaptors))
            return Claim::Unavailable;
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
            bus.interface()->registerService(serviceName(),
                                             QDBusConnectionInterface::DontQueueService,
                                             QDBusConnectionInterface::DontAllowReplacement);
        if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
            m_registered = true;
            return Claim::Owned;
        }
        bus.unregisterObject(QString::fromLatin1(kObjectPath));
        return reply.isValid() ? Claim::Taken : Claim::Unavailable;
    }

    // No options but the abstract namespace: any access option makes listen() replace a live
    // server's socket instead of failing.
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::AbstractNamespaceOption);
    if (!m_server->listen(localSocketName())) {
        const bool taken = m_server->serverError() == QAbstractSocket::AddressInUseError;
        delete m_server;
        m_server = nullptr;
        return taken ? Claim::Taken : Claim::Unavailable;
    }
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server->nextPendingConnection()) {
            if (!fromThisUser(socket)) {
                socket->abort();
                socket->deleteLater();
                continue;
            }
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, &SingleInstance::readConnection);
            if (socket->bytesAvailable() > 0)
                QMetaObject::invokeMethod(this, &SingleInstance::readConnection,
                                          Qt::QueuedConnection);
        }
    });
    return Claim::Owned;
}

void SingleInstance::readConnection()
{
    const QList<QLocalSocket *> sockets = m_server->findChildren<QLocalSocket *>();
    for (QLocalSocket *socket : sockets) {
        if (socket->bytesAvailable() < 1 || socket->property("answered").toBool())
            continue;
        QDataStream in(socket);
        in.setVersion(QDataStream::Qt_6_4);
        in.startTransaction();
        QStringList arguments;
        in >> arguments;
        if (!in.commitTransaction())
            continue; // the rest is still on its way
        socket->setProperty("answered", true);
        socket->write(&kAcknowledged, 1);
        socket->flush();
        socket->disconnectFromServer();
        Open(arguments);
    }
}

bool SingleInstance::forward(const QStringList &arguments)
{
    // A connection of its own, closed again: the application's session-bus connection must
    // be made by the application object that stays, or calls to this instance go unanswered.
    const QString name = QStringLiteral("lofthaven-hand-over");
    bool handed = false;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, name);
        handed = bus.isConnected() ? forwardOverBus(bus, arguments) : forwardOverSocket(arguments);
    }
    QDBusConnection::disconnectFromBus(name);
    return handed;
}

void SingleInstance::setHandler(std::function<void(const QStringList &)> handler)
{
    m_handler = std::move(handler);
    const QList<QStringList> pending = std::exchange(m_pending, {});
    for (const QStringList &arguments : pending)
        m_handler(arguments);
}

void SingleInstance::Open(const QStringList &arguments)
{
    if (!m_handler) {
        m_pending.append(arguments);
        return;
    }
    m_handler(arguments);
}

} // namespace lofthaven
