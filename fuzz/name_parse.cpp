/*
 * name_parse.cpp - KovDskNameParse over arbitrary bytes. Every directory
 * walk of the library hands it whatever entry names it meets, made by the
 * builder or not, so no text may make it write past a caller's buffer.
 *
 * Each input is parsed twice. First for every value, into buffers of the
 * callers' sizes (33, 17, 65 and 11 bytes) that lie in one record with a
 * canary behind each, which finds a write one byte past even where
 * AddressSanitizer would not. Then for the subset of values that the
 * input's hash picks, NULL for the others, into heap blocks of exactly those
 * sizes, where AddressSanitizer sees any byte past. Both calls must give 0
 * or -1 with EINVAL, and every text given back must end inside its buffer.
 */
#include "fuzz.h"

#include "store/store.h"

#include <cerrno>
#include <memory>

namespace {

constexpr unsigned char kCanary = 0xA5;
constexpr size_t kGuard = 16;

struct Boxed {
    char name[KOVDSK_FNAME_BUF];
    unsigned char g1[kGuard];
    char stag[KOVDSK_STAG_BUF];
    unsigned char g2[kGuard];
    char ltag[KOVDSK_LTAG_BUF];
    unsigned char g3[kGuard];
    char deadline[KOVDSK_DEADLINE_BUF];
    unsigned char g4[kGuard];
};

bool Intact(const unsigned char *guard)
{
    for (size_t i = 0; i < kGuard; i++)
        if (guard[i] != kCanary)
            return false;
    return true;
}

bool Ends(const char *text, size_t size) { return strnlen(text, size) < size; }

// FNV-1a: which values the second call asks for.
unsigned Pick(const std::string &s)
{
    uint32_t h = 2166136261u;
    for (unsigned char c : s)
        h = (h ^ c) * 16777619u;
    return h & 63u;
}

void ParseAll(const std::string &in)
{
    Boxed box;
    memset(&box, kCanary, sizeof box);
    int kind = -1, tmp = -1;
    errno = 0;
    int rc = KovDskNameParse(in.c_str(), &kind, box.name, box.stag, box.ltag, box.deadline, &tmp);
    KOVFUZZ_CHECK(Intact(box.g1) && Intact(box.g2) && Intact(box.g3) && Intact(box.g4), in);
    KOVFUZZ_CHECK(rc == 0 || (rc == -1 && errno == EINVAL), in);
    if (rc != 0)
        return;
    KOVFUZZ_CHECK(Ends(box.name, sizeof box.name) && Ends(box.stag, sizeof box.stag) &&
                      Ends(box.ltag, sizeof box.ltag) && Ends(box.deadline, sizeof box.deadline),
                  in);
    KOVFUZZ_CHECK(tmp == 0 || tmp == 1, in);
    KOVFUZZ_CHECK(!in.empty(), in);
}

void ParseSome(const std::string &in)
{
    unsigned mask = Pick(in);
    std::unique_ptr<char[]> name(mask & 2 ? new char[KOVDSK_FNAME_BUF] : nullptr);
    std::unique_ptr<char[]> stag(mask & 4 ? new char[KOVDSK_STAG_BUF] : nullptr);
    std::unique_ptr<char[]> ltag(mask & 8 ? new char[KOVDSK_LTAG_BUF] : nullptr);
    std::unique_ptr<char[]> deadline(mask & 16 ? new char[KOVDSK_DEADLINE_BUF] : nullptr);
    int kind = -1, tmp = -1;
    errno = 0;
    int rc = KovDskNameParse(in.c_str(), mask & 1 ? &kind : nullptr, name.get(), stag.get(),
                             ltag.get(), deadline.get(), mask & 32 ? &tmp : nullptr);
    KOVFUZZ_CHECK(rc == 0 || (rc == -1 && errno == EINVAL), in);
    if (rc != 0)
        return;
    KOVFUZZ_CHECK(!name || Ends(name.get(), KOVDSK_FNAME_BUF), in);
    KOVFUZZ_CHECK(!stag || Ends(stag.get(), KOVDSK_STAG_BUF), in);
    KOVFUZZ_CHECK(!ltag || Ends(ltag.get(), KOVDSK_LTAG_BUF), in);
    KOVFUZZ_CHECK(!deadline || Ends(deadline.get(), KOVDSK_DEADLINE_BUF), in);
    KOVFUZZ_CHECK(!(mask & 32) || tmp == 0 || tmp == 1, in);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in = kovfuzz::Text(data, size);
    ParseAll(in);
    ParseSome(in);
    return 0;
}
