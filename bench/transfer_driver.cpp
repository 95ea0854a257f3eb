// Drives the real Uploader and downloadToPartial for bench/transfer.sh, against the service
// at LOFTHAVEN_ORIGIN, with no limit check of the command line in the way.
//   lofthaven-bench-transfer upload PATH...          → prints id, code and owner token
//   lofthaven-bench-transfer download ID SIZE PARTIAL
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "platform/waitfortask.h"
#include "receive/downloadtopartial.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QCoreApplication>
#include <QDir>

#include <cstdio>
#include <cstring>

using namespace lofthaven;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const bool upload = args.size() >= 3 && args.at(1) == u"upload";
    const bool download = args.size() == 5 && args.at(1) == u"download";
    if (!upload && !download) {
        std::fputs("usage: lofthaven-bench-transfer upload PATH... | download ID SIZE PARTIAL\n",
                   stderr);
        return 2;
    }
    try {
        ServiceOrigin::configure({args.first()});
        if (upload) {
            const SendPlan plan = SendPlan::make(args.mid(2));
            SendOptions options;
            options.expiresIn = 3600;
            Uploader uploader(APIClient(), plan, options, QDir::tempPath(),
                              std::make_shared<ProgressCounter>());
            uploader.setSource(QStringLiteral("bench"));
            const UploadResult result = waitForTask(uploader.run());
            std::printf("%s %s %s %lld\n", qPrintable(result.created.id),
                        qPrintable(result.completed.code), qPrintable(result.created.ownerToken),
                        static_cast<long long>(plan.size));
        } else {
            waitForTask(downloadToPartial(APIClient(), args.at(2), std::nullopt,
                                          args.at(3).toLongLong(), false, args.at(4),
                                          std::make_shared<ProgressCounter>()));
        }
    } catch (...) {
        std::fprintf(stderr, "%s\n", qPrintable(userMessage(std::current_exception())));
        return 1;
    }
    return 0;
}
