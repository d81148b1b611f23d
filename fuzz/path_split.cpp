/*
 * path_split.cpp - KovDskPathSplit over arbitrary paths, with the callers'
 * buffers: 136 bytes for the user text, 40 for the pass text, 256 for the
 * file part, each a heap block of exactly that size so that
 * AddressSanitizer sees a byte past. A link's text reaches the splitter as
 * it lies on the disk, so any text may come.
 *
 * Properties: 0, or -1 with EINVAL. On success the three pieces end inside
 * their buffers, the user and pass texts hold no "/", and the path (its
 * first 4095 bytes, all the splitter looks at) ends in
 * "/usr/" user "/" pass "/" file from its first "/usr/" on.
 */
#include "fuzz.h"

#include "store/store.h"

#include <cerrno>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in = kovfuzz::Text(data, size);
    std::unique_ptr<char[]> user(new char[KOVDSK_USER_HEX_BUF]);
    std::unique_ptr<char[]> pass(new char[KOVDSK_PASS_HEX_BUF]);
    std::unique_ptr<char[]> file(new char[KOVDSK_STORED_MAX]);
    errno = 0;
    int rc = KovDskPathSplit(in.c_str(), user.get(), pass.get(), file.get());
    KOVFUZZ_CHECK(rc == 0 || (rc == -1 && errno == EINVAL), in);
    if (rc != 0)
        return 0;

    KOVFUZZ_CHECK(strnlen(user.get(), KOVDSK_USER_HEX_BUF) < KOVDSK_USER_HEX_BUF &&
                      strnlen(pass.get(), KOVDSK_PASS_HEX_BUF) < KOVDSK_PASS_HEX_BUF &&
                      strnlen(file.get(), KOVDSK_STORED_MAX) < KOVDSK_STORED_MAX,
                  in);
    KOVFUZZ_CHECK(strchr(user.get(), '/') == nullptr && strchr(pass.get(), '/') == nullptr, in);
    std::string seen = in.substr(0, KOVDSK_PATH_MAX - 1);
    size_t at = seen.find("/usr/");
    KOVFUZZ_CHECK(at != std::string::npos, in);
    KOVFUZZ_CHECK(seen.substr(at) == "/usr/" + std::string(user.get()) + "/" + pass.get() + "/" +
                                         file.get(),
                  in);
    return 0;
}
