#pragma once

// The sign-in token in the desktop's credential store (the Secret Service through QtKeychain),
// one item: service = the application id, key "lofthaven-token", label "Lofthaven sign-in".
// When no store answers, or its collection stays locked, the token is kept in this process's
// memory instead (the sign-in then lasts until the process ends) and credentialStoreNotice()
// says so. The token is never written to a file: QtKeychain's plain-text fallback stays off.
//
// Threads: main thread only (the store's jobs are objects of the calling thread and answer
// through its event loop). Each call is an awaitable task; none blocks or runs a nested loop.
// Every wait has a time limit (kCredentialStoreTimeout), after which the store counts as
// unavailable.

#include <QCoroTask>
#include <QString>

#include <chrono>
#include <optional>

namespace lofthaven {

inline constexpr char kCredentialKey[] = "lofthaven-token";
inline constexpr char kCredentialLabel[] = "Lofthaven sign-in";
// Long enough for a person to type the keyring password into the desktop's unlock prompt.
inline constexpr std::chrono::seconds kCredentialStoreTimeout{90};

// The stored token, or nothing (no item, or no store). Failures read as "no token".
QCoro::Task<std::optional<QString>> loadToken();

// Replaces the stored token (delete, then add). True when the credential store took it; false
// when it is only kept in memory for this run (credentialStoreNotice() then has the sentence).
QCoro::Task<bool> saveToken(QString token);

// Removes the stored token and any copy in memory; failures are ignored.
QCoro::Task<void> deleteToken();

// Set once a token could not be saved: the sentence that tells the user the sign-in will not
// be remembered after the application quits.
std::optional<QString> credentialStoreNotice();

} // namespace lofthaven
