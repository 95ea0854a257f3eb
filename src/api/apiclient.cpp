#include "api/apiclient.h"

#include "api/apierror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "api/transferid.h"

namespace lofthaven {

namespace {

QPair<QByteArray, QByteArray> header(const char *name, const QByteArray &value)
{
    return {QByteArray(name), value};
}

HttpHeaders ownerHeader(const std::optional<QString> &ownerToken)
{
    if (!ownerToken)
        return {};
    return {header("X-Owner-Token", ownerToken->toUtf8())};
}

bool isSuccess(int status)
{
    return status >= 200 && status <= 299;
}

} // namespace

HttpRequest APIClient::makeRequest(const QString &path, const QByteArray &method,
                                   const HttpHeaders &extraHeaders) const
{
    HttpRequest request;
    const QUrl relative(path, QUrl::TolerantMode);
    request.url = ServiceOrigin::url().resolved(relative);
    // A path that cannot form a URL is a bug in the caller, not a condition to handle.
    Q_ASSERT_X(request.url.isValid(), "APIClient::makeRequest", "invalid path");
    if (!request.url.isValid())
        qFatal("APIClient::makeRequest: invalid path");
    request.method = method;
    request.headers.append(header("User-Agent", "Lofthaven-Desktop/1.0 (macOS)"));
    if (m_token)
        request.headers.append(header("Authorization", "Bearer " + m_token->toUtf8()));
    request.headers.append(extraHeaders);
    request.idleTimeout = kJsonIdleTimeout;
    request.totalTimeout = kResourceTimeout;
    request.followRedirects = false;
    request.maxCapturedBody = kMaxJsonBody;
    return request;
}

void APIClient::setJsonBody(HttpRequest &request, QByteArray json)
{
    request.headers.append(header("Content-Type", "application/json"));
    request.body = std::move(json);
}

QString APIClient::downloadPath(const QString &id, const std::optional<QString> &unlockToken)
{
    QString path = u"/dl/" + checkedTransferId(id);
    if (unlockToken) {
        // The URL-query character set without "&", "=" and "+", which would end or change the
        // value.
        const QByteArray encoded = QUrl::toPercentEncoding(*unlockToken, "!$'()*,;:@/?");
        path += u"?t=" + QString::fromLatin1(encoded);
    }
    return path;
}

QCoro::Task<QByteArray> APIClient::send(HttpRequest request, std::stop_token stop) const
{
    auto reply = HttpTransport::instance().send(std::move(request), stop);
    HttpResponse response = co_await reply;
    if (!isSuccess(response.status))
        throw APIError::fromResponse(response.status, response.body);
    co_return response.body;
}

QCoro::Task<OKResponse> APIClient::sendExpectingOK(HttpRequest request, std::stop_token stop) const
{
    auto reply = send(std::move(request), stop);
    const QByteArray body = co_await reply;
    if (body.trimmed().isEmpty())
        co_return OKResponse{true};
    co_return decode<OKResponse>(body);
}

QCoro::Task<MeResponse> APIClient::me(std::stop_token stop) const
{
    HttpRequest request = makeRequest(QStringLiteral("/api/me"));
    auto reply = send(std::move(request), stop);
    co_return decode<MeResponse>(co_await reply);
}

QCoro::Task<AccountTransfersResponse> APIClient::accountTransfers(std::stop_token stop) const
{
    HttpRequest request = makeRequest(QStringLiteral("/api/me/transfers"));
    request.maxCapturedBody = kMaxListBody;
    auto reply = send(std::move(request), stop);
    co_return decode<AccountTransfersResponse>(co_await reply);
}

QCoro::Task<InboxResponse> APIClient::inbox(std::stop_token stop) const
{
    HttpRequest request = makeRequest(QStringLiteral("/api/me/inbox"));
    request.maxCapturedBody = kMaxListBody;
    auto reply = send(std::move(request), stop);
    co_return decode<InboxResponse>(co_await reply);
}

QCoro::Task<DeviceLoginStart> APIClient::startDeviceLogin(QString deviceName,
                                                          std::stop_token stop) const
{
    // Sign-in calls go without the token even when one is held.
    HttpRequest request = APIClient().makeRequest(QStringLiteral("/api/cli/login"), "POST");
    setJsonBody(request, DeviceLoginBody{deviceName}.encode());
    auto reply = send(std::move(request), stop);
    co_return decode<DeviceLoginStart>(co_await reply);
}

QCoro::Task<DeviceLoginPoll> APIClient::pollDeviceLogin(QString deviceCode,
                                                        std::stop_token stop) const
{
    HttpRequest request = APIClient().makeRequest(QStringLiteral("/api/cli/token"), "POST");
    setJsonBody(request, DevicePollBody{deviceCode}.encode());
    auto reply = HttpTransport::instance().send(std::move(request), stop);
    // Read on every status: pending, slow-down and denial all come as non-2xx answers.
    const HttpResponse response = co_await reply;
    DeviceLoginPoll poll;
    poll.status = response.status;
    try {
        poll.token = decode<DeviceLoginToken>(response.body);
    } catch (const DecodeError &) {
        poll.token = {};
    }
    co_return poll;
}

QCoro::Task<void> APIClient::logout(std::stop_token stop) const
{
    HttpRequest request = makeRequest(QStringLiteral("/api/cli/logout"), "POST");
    auto reply = HttpTransport::instance().send(std::move(request), stop);
    co_await reply;
}

QCoro::Task<CodeLookup> APIClient::lookupCode(QString code, std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/code/" + code);
    auto reply = send(std::move(request), stop);
    co_return decode<CodeLookup>(co_await reply);
}

QCoro::Task<TransferMeta> APIClient::transfer(QString id, std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/transfers/" + checkedTransferId(id));
    auto reply = send(std::move(request), stop);
    co_return decode<TransferMeta>(co_await reply);
}

QCoro::Task<UnlockResponse> APIClient::unlock(QString id, QString password,
                                              std::stop_token stop) const
{
    HttpRequest request =
        makeRequest(u"/api/transfers/" + checkedTransferId(id) + u"/unlock", "POST");
    setJsonBody(request, PasswordBody{password}.encode());
    auto reply = send(std::move(request), stop);
    co_return decode<UnlockResponse>(co_await reply);
}

QCoro::Task<CreatedTransfer> APIClient::createTransfer(CreateTransferBody body,
                                                       std::stop_token stop) const
{
    HttpRequest request = makeRequest(QStringLiteral("/api/transfers"), "POST");
    setJsonBody(request, body.encode());
    auto reply = send(std::move(request), stop);
    co_return decode<CreatedTransfer>(co_await reply);
}

QCoro::Task<PartResponse> APIClient::uploadPart(QString id, QString ownerToken, int partNumber,
                                                FileBody body, std::function<void(qint64)> onSent,
                                                std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/transfers/" + checkedTransferId(id) + u"/parts/" +
                                          QString::number(partNumber),
                                      "PUT",
                                      {header("X-Owner-Token", ownerToken.toUtf8()),
                                       header("Content-Type", "application/octet-stream")});
    request.idleTimeout = kPartIdleTimeout;
    request.fileBody = std::move(body);
    request.onUploadProgress = std::move(onSent);
    auto reply = send(std::move(request), stop);
    co_return decode<PartResponse>(co_await reply);
}

QCoro::Task<CompletedTransfer> APIClient::completeTransfer(QString id, QString ownerToken,
                                                           CompleteBody body,
                                                           std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/transfers/" + checkedTransferId(id) + u"/complete",
                                      "POST", {header("X-Owner-Token", ownerToken.toUtf8())});
    setJsonBody(request, body.encode());
    auto reply = send(std::move(request), stop);
    co_return decode<CompletedTransfer>(co_await reply);
}

QCoro::Task<void> APIClient::abortTransfer(QString id, QString ownerToken,
                                           std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/transfers/" + checkedTransferId(id) + u"/abort",
                                      "POST", {header("X-Owner-Token", ownerToken.toUtf8())});
    auto reply = HttpTransport::instance().send(std::move(request), stop);
    co_await reply;
}

QCoro::Task<ExtendResponse> APIClient::extendTransfer(QString id, std::optional<QString> ownerToken,
                                                      std::stop_token stop) const
{
    HttpRequest request = makeRequest(u"/api/transfers/" + checkedTransferId(id) + u"/extend",
                                      "POST", ownerHeader(ownerToken));
    auto reply = send(std::move(request), stop);
    co_return decode<ExtendResponse>(co_await reply);
}

QCoro::Task<OKResponse> APIClient::deleteTransfer(QString id, std::optional<QString> ownerToken,
                                                  std::stop_token stop) const
{
    HttpRequest request =
        makeRequest(u"/api/transfers/" + checkedTransferId(id), "DELETE", ownerHeader(ownerToken));
    auto reply = sendExpectingOK(std::move(request), stop);
    co_return co_await reply;
}

QCoro::Task<UpdateInfo> APIClient::updateInfo(std::stop_token stop) const
{
    HttpRequest request = APIClient().makeRequest(QStringLiteral("/downloads/desktop.json"));
    // No secret goes with it, so a CDN redirect may be followed (https only).
    request.followRedirects = true;
    auto reply = send(std::move(request), stop);
    co_return decode<UpdateInfo>(co_await reply);
}

} // namespace lofthaven
