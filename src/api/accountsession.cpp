#include "api/accountsession.h"

#include "api/apierror.h"
#include "api/cancelled.h"
#include "api/serviceorigin.h"
#include "api/transporterror.h"
#include "api/usermessage.h"
#include "platform/credentialstore.h"
#include "platform/devicename.h"
#include "platform/preferences.h"

#include <QJsonDocument>
#include <QPointer>
#include <QTimer>

#include <algorithm>

// Device sign-in:
//
//   (none) --startSignIn--> Starting --code--> Waiting --poll every interval--+
//                              |                 ^  pending: again            |
//                              | error           |  slow_down: interval + 5 s |
//                              v                 +----------------------------+
//                            Failed <-- expired, denied, other answers --+
//                                                                        |
//   Waiting --token--> (none): token saved, account set, then refreshed -+
//   cancelSignIn() from any state --> (none), never Failed

namespace lofthaven {

namespace {

const char *const kExpiredCode = "The sign-in code expired. Try again.";
const char *const kDenied = "Sign-in was denied in the browser.";
const char *const kSignInExpired = "Your sign-in expired. Sign in again to use your account.";

QUrl approvalUrl(const DeviceLoginStart &start)
{
    const QUrl url(start.verifyUrlComplete.value_or(start.verifyUrl), QUrl::StrictMode);
    if (url.isValid() && !url.scheme().isEmpty() && !url.host().isEmpty())
        return url;
    return ServiceOrigin::url();
}

std::chrono::milliseconds seconds(double value)
{
    return std::chrono::milliseconds(qint64(value * 1000.0));
}

// The logout request of a sign-out: bounded, and whatever happens is ignored.
QCoro::Task<void> revoke(QString token)
{
    std::stop_source stop;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, [&stop] { stop.request_stop(); });
    limit.start(AccountSession::kRevokeTimeLimit);
    try {
        auto request = APIClient(token).logout(stop.get_token());
        co_await request;
    } catch (...) {
    }
}

} // namespace

AccountSession::AccountSession(QObject *parent)
    : QObject(parent)
    , m_clock(std::make_shared<PollClock>())
{}

AccountSession::~AccountSession()
{
    m_signInStop.request_stop();
    m_lifetime.request_stop();
}

QCoro::Task<void> AccountSession::load()
{
    QPointer<AccountSession> self(this);
    auto loading = loadToken();
    const std::optional<QString> token = co_await loading;
    if (!self)
        co_return;
    setToken(token);
    if (!token)
        co_return;
    // The cached account shows at once; a broken cache is simply not used.
    if (const auto cached = dataPreference(Preference::CachedMe)) {
        const QJsonDocument document = QJsonDocument::fromJson(*cached);
        if (document.isObject()) {
            try {
                setMe(MeResponse::fromJson(document.object()));
            } catch (const DecodeError &) {
            }
        }
    }
}

void AccountSession::clearNotice()
{
    setNotice(std::nullopt);
}

void AccountSession::setUrlOpener(std::function<void(const QUrl &)> opener)
{
    m_urlOpener = std::move(opener);
}

void AccountSession::setClock(std::shared_ptr<PollClock> clock)
{
    m_clock = std::move(clock);
}

QCoro::Task<void> AccountSession::startSignIn()
{
    cancelSignIn();
    m_signInStop = std::stop_source();
    setSignIn(SignInState{});
    auto running = runSignIn(m_signInStop.get_token());
    co_await running;
}

void AccountSession::cancelSignIn()
{
    m_signInStop.request_stop();
    setSignIn(std::nullopt);
}

QCoro::Task<void> AccountSession::runSignIn(std::stop_token stop)
{
    QPointer<AccountSession> self(this);
    const std::shared_ptr<PollClock> clock = m_clock;
    // After every await: gone, or cancelled (perhaps replaced by a newer sign-in)?
    const auto ended = [&] { return !self || stop.stop_requested(); };

    DeviceLoginStart start;
    std::exception_ptr startError;
    try {
        auto starting = APIClient().startDeviceLogin(deviceName(), stop);
        start = co_await starting;
    } catch (...) {
        startError = std::current_exception();
    }
    if (ended())
        co_return;
    if (startError) {
        try {
            std::rethrow_exception(startError);
        } catch (const Cancelled &) {
            co_return;
        } catch (...) {
            fail(userMessage(std::current_exception()));
            co_return;
        }
    }

    const QUrl url = approvalUrl(start);
    setSignIn(SignInState{SignInState::Phase::Waiting, start.userCode, url, {}});
    if (m_urlOpener)
        m_urlOpener(url);

    const auto deadline =
        clock->now() + (start.expiresIn ? seconds(*start.expiresIn)
                                        : std::chrono::milliseconds(kDefaultCodeLifetime));
    std::chrono::milliseconds interval =
        start.interval
            ? std::max(seconds(*start.interval), std::chrono::milliseconds(kMinimumPollInterval))
            : std::chrono::milliseconds(kDefaultPollInterval);

    DeviceLoginPoll poll;
    for (;;) {
        if (clock->now() >= deadline) {
            fail(QString::fromLatin1(kExpiredCode));
            co_return;
        }
        auto sleeping = clock->sleep(interval, stop);
        co_await sleeping;
        if (ended())
            co_return;
        bool answered = false;
        try {
            auto polling = APIClient().pollDeviceLogin(start.deviceCode, stop);
            poll = co_await polling;
            answered = true;
        } catch (...) {
            // A connection problem is not shown: the next poll may get through.
        }
        if (ended())
            co_return;
        if (!answered)
            continue;
        const int status = poll.status;
        const QString error = poll.token.error.value_or(QString());
        if (status == 428 || error == u"authorization_pending")
            continue;
        if (status == 429 || error == u"slow_down") {
            interval += kSlowDownStep;
            continue;
        }
        if (status == 410) {
            fail(QString::fromLatin1(kExpiredCode));
            co_return;
        }
        if (status == 403) {
            fail(QString::fromLatin1(kDenied));
            co_return;
        }
        if (status >= 200 && status <= 299 && poll.token.token)
            break;
        fail(poll.token.message.value_or(QStringLiteral("Sign-in failed (HTTP %1).").arg(status)));
        co_return;
    }

    const QString token = *poll.token.token;
    auto saving = saveToken(token);
    const bool saved = co_await saving;
    if (ended()) {
        // Cancelled while the token was being stored: leave nothing behind.
        auto deleting = deleteToken();
        co_await deleting;
        co_return;
    }
    setToken(token);
    MeResponse me;
    me.signedIn = true;
    me.user = poll.token.user;
    me.plans = poll.token.plans;
    me.limits = poll.token.limits;
    setMe(me);
    setSignIn(std::nullopt);
    setNotice(saved ? std::nullopt : credentialStoreNotice());
    auto refreshing = refresh(m_lifetime.get_token());
    co_await refreshing;
    if (!self || m_token != token)
        co_return;
    Q_EMIT signedIn();
}

QCoro::Task<void> AccountSession::refresh(std::stop_token stop)
{
    QPointer<AccountSession> self(this);
    const std::optional<QString> token = m_token;
    std::optional<MeResponse> me;
    bool refused = false;
    try {
        auto fetching = APIClient(token).me(stop);
        me = co_await fetching;
    } catch (const APIError &error) {
        refused = error.status() == 401;
    } catch (...) {
        // Offline or the service failed: the account stays as cached.
    }
    // Signed in or out meanwhile: this answer is about a token no longer held.
    if (!self || m_token != token)
        co_return;
    if (token && (refused || (me && me->signedIn != true))) {
        auto signingOut = signOutLocally(QString::fromLatin1(kSignInExpired));
        co_await signingOut;
        co_return;
    }
    if (!me)
        co_return;
    setMe(me);
    if (token)
        setDataPreference(Preference::CachedMe,
                          QJsonDocument(me->toJson()).toJson(QJsonDocument::Compact));
}

QCoro::Task<void> AccountSession::signOut()
{
    std::optional<QCoro::Task<void>> revoking;
    if (m_token)
        revoking.emplace(revoke(*m_token));
    auto signingOut = signOutLocally(std::nullopt);
    co_await signingOut;
    if (revoking)
        co_await *revoking;
}

QCoro::Task<void> AccountSession::signOutLocally(std::optional<QString> notice)
{
    // Everything observable changes at once; the stored copy goes after.
    setToken(std::nullopt);
    setMe(std::nullopt);
    removePreference(Preference::CachedMe);
    setNotice(std::move(notice));
    Q_EMIT signedOut();
    auto deleting = deleteToken();
    co_await deleting;
}

void AccountSession::setToken(std::optional<QString> token)
{
    if (m_token == token)
        return;
    m_token = std::move(token);
    Q_EMIT tokenChanged();
}

void AccountSession::setMe(std::optional<MeResponse> me)
{
    if (m_me == me)
        return;
    m_me = std::move(me);
    Q_EMIT meChanged();
}

void AccountSession::setSignIn(std::optional<SignInState> state)
{
    if (m_signIn == state)
        return;
    m_signIn = std::move(state);
    Q_EMIT signInChanged();
}

void AccountSession::setNotice(std::optional<QString> notice)
{
    if (m_notice == notice)
        return;
    m_notice = std::move(notice);
    Q_EMIT noticeChanged();
}

void AccountSession::fail(QString message)
{
    setSignIn(SignInState{SignInState::Phase::Failed, {}, {}, std::move(message)});
}

} // namespace lofthaven
