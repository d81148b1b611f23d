/*
 * fuzz.h - what the fuzz targets share: the input as a terminated text, and
 * a check that ends the run with a message when a property fails.
 *
 * A target is one LLVMFuzzerTestOneInput over one internal routine of the
 * library (the routines are reached through the library's own objects,
 * linked in). libFuzzer treats abort() like a crash: the input is saved as
 * an artifact and scripts/fuzz reports it.
 */
#ifndef KOVFUZZ_H
#define KOVFUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kovfuzz {

// The input as a text: everything up to the first NUL, as a caller of the
// library would hand it over.
inline std::string Text(const uint8_t *data, size_t size)
{
    std::string s(reinterpret_cast<const char *>(data), size);
    return s.substr(0, strlen(s.c_str()));
}

[[noreturn]] inline void Fail(const char *what, const std::string &input)
{
    fprintf(stderr, "property failed: %s\ninput (%zu bytes): %s\n", what, input.size(),
            input.c_str());
    abort();
}

} // namespace kovfuzz

#define KOVFUZZ_CHECK(cond, input)                  \
    do {                                            \
        if (!(cond))                                \
            ::kovfuzz::Fail(#cond, (input));        \
    } while (0)

#endif
