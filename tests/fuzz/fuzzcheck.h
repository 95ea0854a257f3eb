#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// A broken property aborts, so libFuzzer keeps the input that broke it.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);     \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

namespace lofthaven::fuzz {

inline QByteArray bytesOf(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
}

// Text from the first byte on: an even first byte reads the rest as UTF-8 (typed text), an odd
// one as raw UTF-16 (pasted text and JSON strings, which can carry lone surrogates).
inline QString textOf(const uint8_t *data, size_t size)
{
    if (size == 0)
        return {};
    if (data[0] % 2 == 0)
        return QString::fromUtf8(bytesOf(data + 1, size - 1));
    QString text(qsizetype((size - 1) / 2), Qt::Uninitialized);
    std::memcpy(text.data(), data + 1, size_t(text.size()) * 2);
    return text;
}

} // namespace lofthaven::fuzz
