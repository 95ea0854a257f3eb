#pragma once

#include "api/httprequest.h"
#include "api/wirerecords.h"

#include <QCoroTask>
#include <QString>

#include <functional>
#include <optional>
#include <stop_token>

namespace lofthaven {

// The answer of a device sign-in poll, read on every status. An undecodable body leaves every
// field of `token` absent.
struct DeviceLoginPoll
{
    int status = 0;
    DeviceLoginToken token;
};

// Every call to the service. A small value: make a new one from the current token for each use.
// Non-2xx answers throw APIError, connection problems TransportError, a stop request Cancelled,
// an answer that is not the expected record DecodeError.
class APIClient
{
public:
    APIClient() = default;
    explicit APIClient(std::optional<QString> token)
        : m_token(std::move(token))
    {}

    std::optional<QString> token() const { return m_token; }

    // The request for `path` (relative to the service origin, inserted as it is): the fixed
    // User-Agent, "Authorization: Bearer" only with a token, the extra headers, 60 s idle limit,
    // redirects not followed.
    HttpRequest makeRequest(const QString &path, const QByteArray &method = "GET",
                            const HttpHeaders &extraHeaders = {}) const;
    // Attaches an encoded JSON record with its Content-Type.
    static void setJsonBody(HttpRequest &request, QByteArray json);
    // "/dl/<id>", plus "?t=<token>" percent-encoded for a query value ("&", "=", "+" escaped).
    static QString downloadPath(const QString &id, const std::optional<QString> &unlockToken);

    // Sends the request and returns the body of a 2xx answer; anything else throws APIError.
    QCoro::Task<QByteArray> send(HttpRequest request, std::stop_token stop = {}) const;
    // As send, but an empty 2xx body counts as {"ok": true}.
    QCoro::Task<OKResponse> sendExpectingOK(HttpRequest request, std::stop_token stop = {}) const;

    QCoro::Task<MeResponse> me(std::stop_token stop = {}) const;
    QCoro::Task<AccountTransfersResponse> accountTransfers(std::stop_token stop = {}) const;
    QCoro::Task<InboxResponse> inbox(std::stop_token stop = {}) const;
    QCoro::Task<DeviceLoginStart> startDeviceLogin(QString deviceName,
                                                   std::stop_token stop = {}) const;
    QCoro::Task<DeviceLoginPoll> pollDeviceLogin(QString deviceCode,
                                                 std::stop_token stop = {}) const;
    // The answer is ignored; only transport failures and cancellation throw.
    QCoro::Task<void> logout(std::stop_token stop = {}) const;
    QCoro::Task<CodeLookup> lookupCode(QString code, std::stop_token stop = {}) const;
    QCoro::Task<TransferMeta> transfer(QString id, std::stop_token stop = {}) const;
    QCoro::Task<UnlockResponse> unlock(QString id, QString password,
                                       std::stop_token stop = {}) const;
    QCoro::Task<CreatedTransfer> createTransfer(CreateTransferBody body,
                                                std::stop_token stop = {}) const;
    // Streams the part from disk; onSent gets the bytes sent so far, on the transfer thread.
    QCoro::Task<PartResponse> uploadPart(QString id, QString ownerToken, int partNumber,
                                         FileBody body, std::function<void(qint64)> onSent,
                                         std::stop_token stop = {}) const;
    QCoro::Task<CompletedTransfer> completeTransfer(QString id, QString ownerToken,
                                                    CompleteBody body,
                                                    std::stop_token stop = {}) const;
    // The answer is ignored; only transport failures and cancellation throw.
    QCoro::Task<void> abortTransfer(QString id, QString ownerToken,
                                    std::stop_token stop = {}) const;
    QCoro::Task<ExtendResponse> extendTransfer(QString id, std::optional<QString> ownerToken,
                                               std::stop_token stop = {}) const;
    QCoro::Task<OKResponse> deleteTransfer(QString id, std::optional<QString> ownerToken,
                                           std::stop_token stop = {}) const;
    // The update manifest: a plain fetch without the token.
    QCoro::Task<UpdateInfo> updateInfo(std::stop_token stop = {}) const;

    static constexpr std::chrono::seconds kJsonIdleTimeout{60};
    static constexpr std::chrono::seconds kPartIdleTimeout{300};
    static constexpr std::chrono::seconds kResourceTimeout{86400};
    static constexpr qint64 kMaxJsonBody = 1 << 20;
    // The account's transfer list and the inbox carry up to 500 file names per entry.
    static constexpr qint64 kMaxListBody = 32 << 20;

private:
    std::optional<QString> m_token;
};

} // namespace lofthaven
