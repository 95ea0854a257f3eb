// Every record decoder on untrusted answer bodies: decoding succeeds or throws DecodeError,
// and a record that decodes encodes back to itself (as an object, as bytes on the wire, and
// through a request body's own encoding).

#include "api/wirerecords.h"
#include "fuzzcheck.h"

using namespace lofthaven;

namespace {

template<typename R>
void roundTrip(const QJsonObject &object)
{
    R record;
    try {
        record = R::fromJson(object);
    } catch (const DecodeError &) {
        return;
    }
    FUZZ_CHECK(R::fromJson(record.toJson()) == record);
    FUZZ_CHECK(decode<R>(QJsonDocument(record.toJson()).toJson(QJsonDocument::Compact)) == record);
    if constexpr (requires { record.encode(); })
        FUZZ_CHECK(decode<R>(record.encode()) == record);
}

template<typename... R>
void roundTripAll(const QJsonObject &object)
{
    (roundTrip<R>(object), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QJsonObject object;
    try {
        object = parseJsonObject(fuzz::bytesOf(data, size), "Fuzz");
    } catch (const DecodeError &) {
        return 0;
    }
    roundTripAll<FileEntry, TransferMeta, CodeLookup, UnlockResponse, CreatedTransfer, PartResponse,
                 CompletedTransfer, ExtendResponse, OKResponse, InboxResponse,
                 AccountTransfersResponse, UserInfo, Limits, MeResponse, DeviceLoginStart,
                 DeviceLoginToken, ErrorBody, UpdateInfo, CreateTransferBody, PartETag,
                 CompleteBody, PasswordBody, DeviceLoginBody, DevicePollBody>(object);
    return 0;
}
