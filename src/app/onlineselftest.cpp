#include "app/onlineselftest.h"

#include "api/apierror.h"
#include "api/apperror.h"
#include "api/serviceorigin.h"
#include "app/selftest.h"
#include "platform/runinpool.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"
#include "receive/moveintoplace.h"
#include "receive/unzipinplace.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <future>

namespace lofthaven {

namespace {

struct Sent
{
    SendPlan plan;
    UploadResult result;
};

QByteArray readAll(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw AppError(QStringLiteral("Can't read ") + path + QStringLiteral(": ") +
                       file.errorString());
    return file.readAll();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        throw AppError(QStringLiteral("Can't write ") + path + QStringLiteral(": ") +
                       file.errorString());
}

QCoro::Task<QByteArray> download(APIClient client, TransferMeta meta, QString partial)
{
    auto fetching = downloadToPartial(client, meta.id, std::nullopt, meta.size, false, partial,
                                      std::make_shared<ProgressCounter>());
    co_await fetching;
    auto reading = runInPool([partial] { return readAll(partial); });
    co_return co_await reading;
}

QCoro::Task<void> roundTrip(SelfTest *test, QList<Sent> *sent)
{
    test->section(QStringLiteral("Online: anonymous send → receive → delete (expiry 1 h)"));
    const APIClient client;
    const QString host = ServiceOrigin::host();
    const QString work = test->root() + QStringLiteral("/online");
    QDir().mkpath(work);

    SendOptions options;
    options.expiresIn = 3600;
    for (const QString &path : {test->helloPath(), test->tripPath()}) {
        auto planning = runInPool([path] { return SendPlan::make({path}); });
        const SendPlan plan = co_await planning;
        Uploader uploader(client, plan, options, work, std::make_shared<ProgressCounter>());
        uploader.setSource(QStringLiteral("selftest"));
        auto uploading = uploader.run();
        const UploadResult result = co_await uploading;
        sent->append({plan, result});
        test->check(QStringLiteral("sent %1 (%2 bytes) as code %3")
                        .arg(plan.name)
                        .arg(plan.size)
                        .arg(result.completed.code),
                    result.completed.code.size() == 6);
    }

    QList<TransferMeta> metas;
    for (const Sent &item : *sent) {
        auto resolving = lookupTransfer(client, item.result.completed.code, host);
        const TransferMeta meta = co_await resolving;
        metas.append(meta);
        test->check(QStringLiteral("code resolves to ") + item.result.created.id,
                    meta.id == item.result.created.id);
        const qsizetype listed = meta.files ? meta.files->size() : -1;
        test->check(QStringLiteral("metadata matches (%1, %2 bytes, %3)")
                        .arg(meta.name)
                        .arg(meta.size)
                        .arg(item.plan.isZip ? QStringLiteral("zip of %1 files").arg(listed)
                                             : QStringLiteral("single file")),
                    meta.name == item.plan.name && meta.size == item.plan.size &&
                        meta.isZip.value_or(false) == item.plan.isZip &&
                        listed == item.plan.items.size());
    }

    auto readingSource = runInPool([p = test->helloPath()] { return readAll(p); });
    // The single file, whole; then again from a partial file holding its first 10 bytes.
    const QByteArray hello = co_await readingSource;
    const QString helloPartial = work + QStringLiteral("/hello.part");
    auto fetchingWhole = download(client, metas.at(0), helloPartial);
    const QByteArray whole = co_await fetchingWhole;
    auto truncating = runInPool([helloPartial, hello] { writeAll(helloPartial, hello.left(10)); });
    co_await truncating;
    auto fetchingRest = download(client, metas.at(0), helloPartial);
    const QByteArray resumed = co_await fetchingRest;
    test->check(QStringLiteral("downloaded bytes identical (resumed with Range from byte 10)"),
                whole == hello && resumed == hello);

    // The archive, moved into place and unzipped as a receiver would.
    const TransferMeta trip = metas.at(1);
    const QString tripPartial = work + QStringLiteral("/trip.part");
    auto fetchingArchive = downloadToPartial(client, trip.id, std::nullopt, trip.size, false,
                                             tripPartial, std::make_shared<ProgressCounter>());
    co_await fetchingArchive;
    const QString received = work + QStringLiteral("/received");
    auto unpacking = runInPool([tripPartial, received, trip] {
        const QString archive = moveIntoPlace(tripPartial, trip.name, received);
        return unzipInPlace(archive, trip.size + (1 << 20));
    });
    const QString folder = co_await unpacking;
    auto readingA = runInPool([folder] { return readAll(folder + "/a.bin"); });
    const QByteArray a = co_await readingA;
    auto readingSub =
        runInPool([folder] { return readAll(folder + QStringLiteral("/Sub/bé ✓.bin")); });
    const QByteArray sub = co_await readingSub;
    test->check(QStringLiteral("downloaded ZIP unzips to identical bytes (") + folder +
                    QLatin1Char(')'),
                a == test->aBytes() && sub == test->subBytes());
}

QCoro::Task<void> deleteAll(SelfTest *test, QList<Sent> sent)
{
    if (sent.isEmpty())
        co_return;
    const APIClient client;
    bool deleted = true;
    for (const Sent &item : sent) {
        auto deleting =
            client.deleteTransfer(item.result.created.id, item.result.created.ownerToken);
        const OKResponse answer = co_await deleting;
        deleted = deleted && answer.ok.value_or(true);
    }
    test->check(QStringLiteral("deleted %1 transfers").arg(sent.size()), deleted);
    bool gone = true;
    for (const Sent &item : sent) {
        try {
            auto describing = client.transfer(item.result.created.id);
            co_await describing;
            gone = false;
        } catch (const APIError &error) {
            gone = gone && (error.status() == 404 || error.status() == 410);
        }
    }
    test->check(QStringLiteral("deleted transfers no longer resolve"), gone);
}

QCoro::Task<void> runOnMainThread(SelfTest *test, std::promise<void> *finished)
{
    QList<Sent> sent;
    std::exception_ptr failure;
    try {
        auto roundTripping = roundTrip(test, &sent);
        co_await roundTripping;
    } catch (...) {
        failure = std::current_exception();
    }
    // Clean up at the service whatever happened; the first failure is the one reported.
    try {
        auto cleaning = deleteAll(test, sent);
        co_await cleaning;
    } catch (...) {
        if (!failure)
            failure = std::current_exception();
    }
    if (failure)
        finished->set_exception(failure);
    else
        finished->set_value();
}

} // namespace

void runOnlineSelfTest(SelfTest &test)
{
    std::promise<void> finished;
    std::future<void> outcome = finished.get_future();
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&test, &finished] { runOnMainThread(&test, &finished); },
        Qt::QueuedConnection);
    outcome.get(); // rethrows the round trip's failure on the self-test's thread
}

} // namespace lofthaven
