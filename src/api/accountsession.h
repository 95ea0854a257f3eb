#pragma once

// The signed-in account of this process: the token (kept in the credential store), the
// account answer of the service (cached in the "cachedMe" preference), the device sign-in in
// progress, and the one notice that sign-in and sign-out produce. The application model and
// the command line both use it; the rules for sign-in, refresh and sign-out live only here.
//
// Threads: one object on the main thread; every operation and signal there. Tasks it starts
// take a stop token and end early when the object is destroyed.

#include "api/apiclient.h"
#include "api/pollclock.h"
#include "api/signinstate.h"
#include "api/wirerecords.h"

#include <QCoroTask>
#include <QObject>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

namespace lofthaven {

class AccountSession : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::seconds kDefaultCodeLifetime{600};
    static constexpr std::chrono::seconds kDefaultPollInterval{3};
    static constexpr std::chrono::seconds kMinimumPollInterval{1};
    static constexpr std::chrono::seconds kSlowDownStep{5};
    // The longest a sign-out waits for the service to revoke the token.
    static constexpr std::chrono::seconds kRevokeTimeLimit{15};

    explicit AccountSession(QObject *parent = nullptr);
    ~AccountSession() override;

    // Reads the stored token and, when there is one, the cached account. Call once at start,
    // after registerDefaultSettings().
    QCoro::Task<void> load();

    std::optional<QString> token() const { return m_token; }
    std::optional<MeResponse> me() const { return m_me; }
    std::optional<SignInState> signIn() const { return m_signIn; }
    std::optional<QString> notice() const { return m_notice; }
    void clearNotice();
    // A client carrying the current token.
    APIClient client() const { return APIClient(m_token); }

    // Called with the approval page when a sign-in starts waiting (the desktop opens the
    // browser; the command line may print it only).
    void setUrlOpener(std::function<void(const QUrl &)> opener);
    // Replaces the clock of the polling loop (tests).
    void setClock(std::shared_ptr<PollClock> clock);

    // Starts a device sign-in, cancelling one under way. The task ends when this sign-in has
    // ended: signed in, failed (signIn() says why) or cancelled. Callers may drop it.
    QCoro::Task<void> startSignIn();
    // Ends the sign-in under way and clears its state; a cancelled sign-in never fails.
    void cancelSignIn();

    // GET /api/me: sets the account, or signs out locally when the service no longer accepts
    // the token. Other failures leave the account as it was.
    QCoro::Task<void> refresh(std::stop_token stop = {});

    // Asks the service to revoke the token and signs out locally at once, without a notice.
    // The task ends when the local sign-out is done and the service answered (or gave up
    // after kRevokeTimeLimit); the model may drop it, the command line waits.
    QCoro::Task<void> signOut();

Q_SIGNALS:
    void tokenChanged();
    void meChanged();
    void signInChanged();
    void noticeChanged();
    // A sign-in succeeded and the account was refreshed: time to start signed-in work.
    void signedIn();
    // The token is gone (sign-out, or the service refused it): drop signed-in state.
    void signedOut();

private:
    QCoro::Task<void> runSignIn(std::stop_token stop);
    QCoro::Task<void> signOutLocally(std::optional<QString> notice);
    void setToken(std::optional<QString> token);
    void setMe(std::optional<MeResponse> me);
    void setSignIn(std::optional<SignInState> state);
    void setNotice(std::optional<QString> notice);
    void fail(QString message);

    std::optional<QString> m_token;
    std::optional<MeResponse> m_me;
    std::optional<SignInState> m_signIn;
    std::optional<QString> m_notice;
    std::function<void(const QUrl &)> m_urlOpener;
    std::shared_ptr<PollClock> m_clock;
    std::stop_source m_signInStop; // of the sign-in under way
    std::stop_source m_lifetime;   // requested when this object goes away
};

} // namespace lofthaven
