// APIClient against the real local service: the signed-in endpoints end to end, from the
// device sign-in to the account list, the inbox, extend, delete and sign-out.
#include "api/apiclient.h"
#include "api/apierror.h"
#include "api/serviceorigin.h"
#include "localservice.h"
#include "testdata.h"
#include "thrown.h"

#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

// The HTTP status the task failed with; 0 when it succeeded.
template<class T>
int failedWith(QCoro::Task<T> task)
{
    const auto error = thrown<APIError>(std::move(task));
    return error ? error->status() : 0;
}

} // namespace

class TestAPIClientService : public QObject
{
    Q_OBJECT

    LocalService m_service{{4096, {QStringLiteral("--device-interval"), QStringLiteral("0.05")}}};
    QTemporaryDir m_files;

    // Creates a one-part transfer of `bytes` with the given client; returns it.
    CreatedTransfer send(const APIClient &client, const QByteArray &bytes, bool toSelf)
    {
        CreateTransferBody body;
        body.name = QStringLiteral("note.txt");
        body.size = bytes.size();
        body.files = {FileEntry{body.name, body.size}};
        body.expiresIn = 3600;
        body.partSize = 4096;
        body.source = QStringLiteral("test");
        if (toSelf) {
            body.toSelf = true;
            body.device = QStringLiteral("Test box");
        }
        const CreatedTransfer created = waitForTask(client.createTransfer(body));
        const QString path = m_files.filePath(created.id);
        writeFile(path, bytes); // a failed write shows as a short part on upload
        const PartResponse part = waitForTask(client.uploadPart(
            created.id, created.ownerToken, 1, FileBody{path, 0, bytes.size()}, {}));
        waitForTask(client.completeTransfer(created.id, created.ownerToken,
                                            CompleteBody{{PartETag{1, part.etag}}}));
        return created;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
    }

    void signedInRoundTrip()
    {
        const APIClient anonymous;
        const DeviceLoginStart start =
            waitForTask(anonymous.startDeviceLogin(QStringLiteral("Lofthaven for Mac (test)")));
        QVERIFY(start.verifyUrlComplete.value_or(QString()).contains(start.userCode));
        QTest::qWait(100);
        QCOMPARE(waitForTask(anonymous.pollDeviceLogin(start.deviceCode)).status, 428);

        m_service.control("POST", QStringLiteral("/__test/device/approve"),
                          {{"userCode", start.userCode}, {"email", "me@example.com"}});
        QTest::qWait(100);
        const DeviceLoginPoll approved = waitForTask(anonymous.pollDeviceLogin(start.deviceCode));
        QCOMPARE(approved.status, 200);
        QVERIFY(approved.token.token.has_value());
        QVERIFY(approved.token.limits.has_value());

        const APIClient client(approved.token.token);
        const MeResponse me = waitForTask(client.me());
        QCOMPARE(me.signedIn, std::optional<bool>(true));
        QCOMPARE(me.user->email, std::optional<QString>(QStringLiteral("me@example.com")));
        QVERIFY(me.limits->maxBytes > 500LL * 1024 * 1024);

        const CreatedTransfer mine = send(client, "to my devices", true);
        const InboxResponse inbox = waitForTask(client.inbox());
        QCOMPARE(inbox.items.size(), 1);
        QCOMPARE(inbox.items.first().id, mine.id);
        QCOMPARE(inbox.items.first().device, std::optional<QString>(QStringLiteral("Test box")));
        const AccountTransfersResponse listed = waitForTask(client.accountTransfers());
        QCOMPARE(listed.transfers.size(), 1);

        // The signed-in owner may extend (once) and delete without the owner token.
        const ExtendResponse extended = waitForTask(client.extendTransfer(mine.id, std::nullopt));
        QVERIFY(extended.expiresAt > mine.expiresAt);
        QCOMPARE(failedWith(client.extendTransfer(mine.id, std::nullopt)), 409);
        QVERIFY(waitForTask(client.deleteTransfer(mine.id, std::nullopt)).ok.value_or(true));

        waitForTask(client.logout());
        QCOMPARE(failedWith(client.me()), 401);
    }

    void ownerTokenAndManifest()
    {
        const APIClient anonymous;
        const CreatedTransfer created = send(anonymous, "hello", false);
        QVERIFY(!waitForTask(anonymous.transfer(created.id)).hasPassword.value_or(false));
        // Without the owner token a stranger can neither extend nor delete.
        QCOMPARE(failedWith(anonymous.deleteTransfer(created.id, std::nullopt)), 403);
        QVERIFY(waitForTask(anonymous.extendTransfer(created.id, created.ownerToken)).expiresAt >
                created.expiresAt);
        QVERIFY(waitForTask(anonymous.deleteTransfer(created.id, created.ownerToken))
                    .ok.value_or(true));
        QVERIFY(!waitForTask(anonymous.updateInfo()).version.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestAPIClientService)
#include "tst_apiclient_service.moc"
