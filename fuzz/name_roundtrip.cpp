/*
 * name_roundtrip.cpp - the stored-name codec's promise: any valid value set
 * built with KovDskNameBuild parses back with KovDskNameParse to the same
 * values, each cut to its limit.
 *
 * From the input: a kind of 0 to 255, a file name of 1 to 40 bytes, a short
 * tag of 0 to 24 bytes and a long tag of 0 to 80 (any bytes but NUL, so
 * every limit is crossed), a deadline that is absent, ten digits, or up to
 * 12 bytes of anything, and any int as the temporary flag.
 *
 * Expected back: the kind; the first 32 bytes of the name, 16 of the short
 * tag, 64 of the long tag; the deadline only when it was exactly ten
 * digits, else empty; the flag as 0 or 1. The name is parsed for every
 * value and once more for the subset the input picks (NULL for the rest),
 * which must give the same values: the cursor rules make fields that are
 * not asked for harmless. The stored name fits 250 bytes, and holds ".1"
 * exactly when the flag is set. Any difference aborts.
 */
#include "fuzz.h"

#include "store/store.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {

// n bytes of the input with every NUL replaced, so the text keeps its length.
std::string Bytes(FuzzedDataProvider &in, size_t n)
{
    std::string s = in.ConsumeBytesAsString(n);
    s.resize(n, 'a');
    for (char &c : s)
        if (c == '\0')
            c = '\x01';
    return s;
}

std::string Deadline(FuzzedDataProvider &in, bool *present)
{
    switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0:
        *present = false;
        return "";
    case 1: {
        std::string d;
        for (int i = 0; i < 10; i++)
            d += static_cast<char>('0' + in.ConsumeIntegralInRange(0, 9));
        *present = true;
        return d;
    }
    default:
        *present = true;
        return Bytes(in, in.ConsumeIntegralInRange<size_t>(0, 12));
    }
}

bool TenDigits(const std::string &d)
{
    if (d.size() != 10)
        return false;
    for (char c : d)
        if (c < '0' || c > '9')
            return false;
    return true;
}

struct Values {
    int kind = -1, tmp = -1;
    char name[KOVDSK_FNAME_BUF] = {}, stag[KOVDSK_STAG_BUF] = {}, ltag[KOVDSK_LTAG_BUF] = {};
    char deadline[KOVDSK_DEADLINE_BUF] = {};
};

std::string Show(const char *stored, unsigned kind, const std::string &name, const std::string &stag,
                 const std::string &ltag, const std::string &deadline, int tmp)
{
    char line[1024];
    snprintf(line, sizeof line, "stored %s from kind %u, name %zu bytes, tags %zu/%zu bytes, "
             "deadline \"%s\", flag %d", stored, kind, name.size(), stag.size(), ltag.size(),
             deadline.c_str(), tmp);
    return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const unsigned kind = in.ConsumeIntegral<uint8_t>();
    const int tmp = in.ConsumeIntegral<int>();
    const unsigned mask = in.ConsumeIntegral<uint8_t>() & 63u;
    bool has_deadline = false;
    const std::string deadline = Deadline(in, &has_deadline);
    const std::string name = Bytes(in, in.ConsumeIntegralInRange<size_t>(1, 40));
    const std::string stag = Bytes(in, in.ConsumeIntegralInRange<size_t>(0, 24));
    const std::string ltag = Bytes(in, in.ConsumeIntegralInRange<size_t>(0, 80));

    char stored[KOVDSK_STORED_MAX];
    int rc = KovDskNameBuild(kind, name.c_str(), stag.empty() && in.ConsumeBool() ? nullptr : stag.c_str(),
                             ltag.empty() && in.ConsumeBool() ? nullptr : ltag.c_str(),
                             has_deadline ? deadline.c_str() : nullptr, tmp, stored);
    // Told only when a check fails.
    auto what = [&] { return Show(rc == 0 ? stored : "(none)", kind, name, stag, ltag, deadline, tmp); };
    KOVFUZZ_CHECK(rc == 0, what());
    KOVFUZZ_CHECK(strlen(stored) <= 250, what());
    KOVFUZZ_CHECK((strstr(stored, ".1") != nullptr) == (tmp != 0), what());

    Values all;
    KOVFUZZ_CHECK(KovDskNameParse(stored, &all.kind, all.name, all.stag, all.ltag, all.deadline,
                                  &all.tmp) == 0, what());
    KOVFUZZ_CHECK(all.kind == static_cast<int>(kind), what());
    KOVFUZZ_CHECK(name.substr(0, 32) == all.name, what());
    KOVFUZZ_CHECK(stag.substr(0, 16) == all.stag, what());
    KOVFUZZ_CHECK(ltag.substr(0, 64) == all.ltag, what());
    KOVFUZZ_CHECK((TenDigits(deadline) ? deadline : "") == all.deadline, what());
    KOVFUZZ_CHECK(all.tmp == (tmp != 0 ? 1 : 0), what());

    Values some;
    KOVFUZZ_CHECK(KovDskNameParse(stored, mask & 1 ? &some.kind : nullptr, mask & 2 ? some.name : nullptr,
                                  mask & 4 ? some.stag : nullptr, mask & 8 ? some.ltag : nullptr,
                                  mask & 16 ? some.deadline : nullptr,
                                  mask & 32 ? &some.tmp : nullptr) == 0, what());
    KOVFUZZ_CHECK(!(mask & 1) || some.kind == all.kind, what());
    KOVFUZZ_CHECK(!(mask & 2) || strcmp(some.name, all.name) == 0, what());
    KOVFUZZ_CHECK(!(mask & 4) || strcmp(some.stag, all.stag) == 0, what());
    KOVFUZZ_CHECK(!(mask & 8) || strcmp(some.ltag, all.ltag) == 0, what());
    KOVFUZZ_CHECK(!(mask & 16) || strcmp(some.deadline, all.deadline) == 0, what());
    KOVFUZZ_CHECK(!(mask & 32) || some.tmp == all.tmp, what());
    return 0;
}
