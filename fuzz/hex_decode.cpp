/*
 * hex_decode.cpp - KovDskHexDec over arbitrary text. It decodes until the
 * terminator and cannot fail, so its one duty is to stay inside a target
 * sized for its source: (length + 1) / 2 bytes and the terminator. The
 * target here is a heap block of exactly that size, so AddressSanitizer sees
 * a byte past it.
 *
 * Properties: the count returned is (length + 1) / 2 with the terminator
 * behind it; a text of hex digits (either case) of even length whose bytes
 * hold no NUL comes back from KovDskHexEnc as the same text in upper case.
 */
#include "fuzz.h"

#include "store/store.h"

#include <cctype>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in = kovfuzz::Text(data, size);
    const size_t want = (in.size() + 1) / 2;
    std::unique_ptr<char[]> out(new char[want + 1]);
    int n = KovDskHexDec(in.c_str(), out.get());
    KOVFUZZ_CHECK(n >= 0 && static_cast<size_t>(n) == want && out[want] == '\0', in);

    bool hex = in.size() % 2 == 0;
    for (unsigned char c : in)
        hex = hex && isxdigit(c);
    if (!hex || memchr(out.get(), '\0', want) != nullptr)
        return 0;
    // The encoder takes at most size - 1 source bytes.
    std::unique_ptr<char[]> again(new char[2 * want + 1]);
    int m = KovDskHexEnc(out.get(), again.get(), static_cast<int>(want) + 1);
    std::string upper = in;
    for (char &c : upper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    KOVFUZZ_CHECK(m == static_cast<int>(in.size()) && upper == again.get(), in);
    return 0;
}
