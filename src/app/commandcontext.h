#pragma once

#include "api/apiclient.h"

#include <QCommandLineParser>
#include <QString>

#include <stop_token>

namespace lofthaven {

class AccountSession;

// What a subcommand needs from the process: the parsed options, the client, a stop token
// that Ctrl-C requests, and the one place that writes results and failures.
struct CommandContext
{
    static constexpr int kFailed = 1;
    static constexpr int kUsage = 2;
    static constexpr int kInterrupted = 130;

    QCommandLineParser *parser = nullptr;
    APIClient client;                  // carries the stored token, when there is one
    AccountSession *session = nullptr; // loaded from the credential store
    QString serviceHost;
    std::stop_token stop;

    // Reads one line from standard input (the password), without its line break.
    static std::optional<QString> readSecretLine();
    static void printOut(const QString &text);
    static void printError(const QString &text);
    // Prints the user-facing message of the current exception; returns the exit status.
    int fail(const std::exception_ptr &error) const;
};

} // namespace lofthaven
