#include "platform/credentialstore.h"

#include "platform/applicationid.h"
#include "platform/dbuscall.h"
#include "platform/wakeup.h"

#include <qt6keychain/keychain.h>

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QStringDecoder>
#include <QTimer>

#include <memory>

namespace lofthaven {

namespace {

// Main thread only, like the functions that use them.
std::optional<QString> s_memoryToken;
std::optional<QString> s_notice;

struct JobOutcome
{
    bool finished = false; // false: no answer within the time limit
    QKeychain::Error error = QKeychain::OtherError;
    QString text;
};

struct JobWait
{
    Wakeup wakeup;
    JobOutcome outcome;
};

template<typename Job>
Job *makeJob()
{
    auto *job = new Job(QString::fromLatin1(kApplicationId));
    job->setKey(QString::fromLatin1(kCredentialKey));
    // Never a plain file, whatever the backend.
    job->setInsecureFallback(false);
    // The job deletes itself once finished, also when we stopped waiting for it.
    job->setAutoDelete(true);
    return job;
}

// Starts the job and resumes when it finished or the time limit passed. The outcome is copied
// out in the finished signal, before the job deletes itself.
QCoro::Task<JobOutcome> run(QKeychain::Job *job)
{
    auto wait = std::make_shared<JobWait>();
    QObject::connect(job, &QKeychain::Job::finished, job, [wait](QKeychain::Job *done) {
        wait->outcome.finished = true;
        wait->outcome.error = done->error();
        if (auto *read = qobject_cast<QKeychain::ReadPasswordJob *>(done)) {
            // Only valid UTF-8 counts as a token.
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            const QString text = decoder(read->binaryData());
            if (decoder.hasError())
                wait->outcome.error = QKeychain::OtherError;
            else
                wait->outcome.text = text;
        }
        wait->wakeup.notify();
    });
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, [wait] { wait->wakeup.notify(); });
    limit.start(kCredentialStoreTimeout);
    job->start();
    co_await wait->wakeup.wait();
    co_return wait->outcome;
}

// QtKeychain names the item after its service; the user's keyring manager should show what
// it is. Secret Service only (not KWallet); a failure leaves the item as it is.
QCoro::Task<void> labelStoredItem()
{
    using StringMap = QMap<QString, QString>;
    qDBusRegisterMetaType<StringMap>();
    const QString service = QStringLiteral("org.freedesktop.secrets");
    constexpr std::chrono::seconds kTimeout{5};
    QDBusMessage search = QDBusMessage::createMethodCall(
        service, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("SearchItems"));
    search << QVariant::fromValue(StringMap{
        {QStringLiteral("server"), QString::fromLatin1(kApplicationId)},
        {QStringLiteral("user"), QString::fromLatin1(kCredentialKey)},
    });
    auto searching = callDBus(QDBusConnection::sessionBus(), search, kTimeout);
    const QDBusMessage found = co_await searching;
    if (found.type() != QDBusMessage::ReplyMessage || found.arguments().isEmpty())
        co_return;
    const auto unlocked =
        qdbus_cast<QList<QDBusObjectPath>>(found.arguments().at(0).value<QDBusArgument>());
    for (const QDBusObjectPath &item : unlocked) {
        QDBusMessage set = QDBusMessage::createMethodCall(
            service, item.path(), QStringLiteral("org.freedesktop.DBus.Properties"),
            QStringLiteral("Set"));
        set << QStringLiteral("org.freedesktop.Secret.Item") << QStringLiteral("Label")
            << QVariant::fromValue(QDBusVariant(QString::fromLatin1(kCredentialLabel)));
        auto setting = callDBus(QDBusConnection::sessionBus(), set, kTimeout);
        co_await setting;
    }
}

QCoro::Task<void> deleteStored()
{
    auto deleting = run(makeJob<QKeychain::DeletePasswordJob>());
    co_await deleting;
}

} // namespace

QCoro::Task<std::optional<QString>> loadToken()
{
    // A token kept in memory is the latest one: saving always removes the stored item first.
    if (s_memoryToken)
        co_return s_memoryToken;
    auto reading = run(makeJob<QKeychain::ReadPasswordJob>());
    const JobOutcome outcome = co_await reading;
    if (!outcome.finished || outcome.error != QKeychain::NoError || outcome.text.isEmpty())
        co_return std::nullopt;
    co_return outcome.text;
}

QCoro::Task<bool> saveToken(QString token)
{
    auto deleting = deleteStored();
    co_await deleting;
    auto *job = makeJob<QKeychain::WritePasswordJob>();
    job->setTextData(token);
    auto writing = run(job);
    const JobOutcome outcome = co_await writing;
    if (outcome.finished && outcome.error == QKeychain::NoError) {
        s_memoryToken.reset();
        auto labelling = labelStoredItem();
        co_await labelling;
        co_return true;
    }
    s_memoryToken = token;
    s_notice = QStringLiteral("Lofthaven couldn't save your sign-in in the keyring, so it won't be "
                              "remembered after Lofthaven quits.");
    co_return false;
}

QCoro::Task<void> deleteToken()
{
    s_memoryToken.reset();
    auto deleting = deleteStored();
    co_await deleting;
}

std::optional<QString> credentialStoreNotice()
{
    return s_notice;
}

} // namespace lofthaven
