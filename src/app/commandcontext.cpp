#include "app/commandcontext.h"

#include "api/cancelled.h"
#include "api/usermessage.h"
#include "platform/displaytext.h"

#include <cstdio>
#include <iostream>
#include <string>

namespace lofthaven {

std::optional<QString> CommandContext::readSecretLine()
{
    std::string line;
    if (!std::getline(std::cin, line))
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return QString::fromStdString(line);
}

void CommandContext::printOut(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void CommandContext::printError(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

int CommandContext::fail(const std::exception_ptr &error) const
{
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled &) {
        printError(QStringLiteral("Cancelled."));
        return kInterrupted;
    } catch (...) {
        if (stop.stop_requested()) {
            printError(QStringLiteral("Cancelled."));
            return kInterrupted;
        }
        // The sentence may carry the service's words: never raw bytes on a terminal.
        printError(displayText(userMessage(std::current_exception()), 1000));
        return kFailed;
    }
}

} // namespace lofthaven
