/*
 * store.h - a booted table with the store's top directories, for the tests
 * of streams, deletions and listings.
 */
#ifndef KOVTEST_STORE_H
#define KOVTEST_STORE_H

#include "harness/boot.h"

#include <string>

namespace kovtest {

class Store : public Boot {
protected:
    void SetUp() override;

    bool Exists(const std::string &rel) const;
    long Size(const std::string &rel) const;  // -1 if absent
    std::string Content(const std::string &rel) const;
    std::string LinkText(const std::string &rel) const;
    // Names in a directory below the root, sorted.
    std::string Entries(const std::string &rel) const;

    // Stores a whole file through the streams; the stored name is returned.
    std::string Put(const char *name, unsigned kind, unsigned area, uint64_t id,
                    const char *user, uint64_t pass, const std::string &bytes,
                    int tmp = 0, const char *deadline = nullptr);
    // Reads a stored file back whole through the streams.
    std::string Get(const char *name, unsigned kind, unsigned area, uint64_t id,
                    const char *user, uint64_t pass);

    // Locks free and counters back where nothing is open.
    void ExpectAllFree() const;
};

// n bytes of a pattern that shows any misplaced byte.
std::string Pattern(size_t n, unsigned seed = 1);

} // namespace kovtest

#endif
