// A separate process for the credential store tests, so that a load really comes after a
// restart: "credentialprobe save TOKEN", "credentialprobe load", "credentialprobe delete".
// Prints what the store answered on one line ("saved", "memory", "token TOKEN", "none",
// "deleted") and the notice, if any, on a second line.

#include "platform/credentialstore.h"
#include "platform/waitfortask.h"

#include <QCoreApplication>

#include <cstdio>

using namespace lofthaven;

namespace {

void print(const QString &line)
{
    std::puts(line.toUtf8().constData());
}

QCoro::Task<int> probe(QStringList arguments)
{
    const QString verb = arguments.value(1);
    if (verb == u"save") {
        auto saving = saveToken(arguments.value(2));
        print(co_await saving ? QStringLiteral("saved") : QStringLiteral("memory"));
        if (arguments.value(3) == u"load") {
            // In the same process: the token is still there, from memory if need be.
            auto loading = loadToken();
            const auto token = co_await loading;
            print(token ? u"token " + *token : QStringLiteral("none"));
        }
    } else if (verb == u"load") {
        auto loading = loadToken();
        const auto token = co_await loading;
        print(token ? u"token " + *token : QStringLiteral("none"));
    } else if (verb == u"delete") {
        auto deleting = deleteToken();
        co_await deleting;
        print(QStringLiteral("deleted"));
    } else {
        co_return 2;
    }
    if (const auto notice = credentialStoreNotice())
        print(u"notice " + *notice);
    co_return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    return waitForTask(probe(app.arguments()));
}
