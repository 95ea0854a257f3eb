// Whatever is typed or pasted into the receive field: the normaliser never fails, and what it
// finds is a six-digit code or an identifier that is one path segment.

#include "fuzzcheck.h"
#include "receive/receivetarget.h"

#include <QString>

using namespace lofthaven;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = fuzz::textOf(data, size);
    const std::optional<ReceiveTarget> target = normalizeReceiveInput(text);
    if (!target)
        return 0;
    if (target->kind == ReceiveTarget::Kind::Code) {
        FUZZ_CHECK(target->value.size() == 6);
        for (const QChar c : target->value)
            FUZZ_CHECK(c >= u'0' && c <= u'9');
    } else {
        FUZZ_CHECK(!target->value.isEmpty());
        FUZZ_CHECK(!target->value.contains(u'/'));
    }
    // A found code typed again is the same code.
    if (target->kind == ReceiveTarget::Kind::Code)
        FUZZ_CHECK(normalizeReceiveInput(target->value) == target);
    return 0;
}
