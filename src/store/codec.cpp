/*
 * codec.cpp - the stored name: kind, file name, tags, deadline and the
 * temporary flag packed into one directory-entry name, and back.
 *
 *   t<kind %02x>t n<name>n [f<short tag>f] [s<long tag>s] [d<8 digits>d m<2>m] .0|.1
 *
 * Values are upper-case hex, so the lower-case delimiters never occur inside
 * them and the name parses without lengths. Only the kind is lower-case hex
 * and may hold "d" or "f": the parser takes it first and searches for every
 * later delimiter behind it.
 */
#include "store/store.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kStoredMax = KOVDSK_STORED_MAX;

// Bits of one hex character: "0"-"9", "A"-"F" and "a"-"f" alike; any other
// character gives whatever the rule gives, nothing is rejected.
unsigned KovDskHexNibble(char c)
{
    unsigned char u = static_cast<unsigned char>(c);
    return (u < ':' ? u : u - 0x37u) & 0x0Fu;
}

// A delimited field at or after *cursor: its text starts at *begin and
// has *len characters. 0 absent, 1 present (cursor moved behind it), -1 an
// opening delimiter with no closing one.
int KovDskField(const char *buf, size_t *cursor, char delim, const char **begin, size_t *len)
{
    const char *open = strchr(buf + *cursor, delim);
    if (open == nullptr)
        return 0;
    const char *close = strchr(open + 1, delim);
    if (close == nullptr)
        return -1;
    *begin = open + 1;
    *len = static_cast<size_t>(close - open - 1);
    *cursor = static_cast<size_t>(close - buf + 1);
    return 1;
}

// A hex field decoded into a caller's buffer of `cap` bytes. Fields that
// would not fit were not made by the builder: refused, never cut.
int KovDskHexField(const char *buf, size_t *cursor, char delim, char *out, size_t cap)
{
    const char *begin = nullptr;
    size_t len = 0;
    int found = KovDskField(buf, cursor, delim, &begin, &len);
    if (found < 0 || (found == 1 && (len + 1) / 2 >= cap)) {
        errno = EINVAL;
        return -1;
    }
    if (found == 0) {
        out[0] = '\0';
        return 0;
    }
    char text[kStoredMax];
    memcpy(text, begin, len);
    text[len] = '\0';
    KovDskHexDec(text, out);
    return 0;
}

// The deadline: the d text, and the m text at position 8 behind it.
int KovDskDeadlineField(const char *buf, size_t *cursor, char *out)
{
    const char *d = nullptr, *m = nullptr;
    size_t dlen = 0, mlen = 0;
    memset(out, 0, KOVDSK_DEADLINE_BUF);
    int found = KovDskField(buf, cursor, 'd', &d, &dlen);
    if (found == 0)
        return 0;  // no d piece: no m piece is looked for
    if (found == 1 && dlen <= 8) {
        memcpy(out, d, dlen);
        found = KovDskField(buf, cursor, 'm', &m, &mlen);
        if (found == 0 || (found == 1 && mlen <= 2)) {
            if (found == 1)
                memcpy(out + 8, m, mlen);
            return 0;
        }
    }
    errno = EINVAL;
    return -1;
}

// Appends "<delim><hex of value><delim>" at *end.
void KovDskPutHex(char **end, char delim, const char *value, int size)
{
    *(*end)++ = delim;
    *end += KovDskHexEnc(value, *end, size);
    *(*end)++ = delim;
}

} // namespace

bool KovDskIsDeadline(const char *d)
{
    if (d == nullptr || strlen(d) != 10)
        return false;
    for (int i = 0; i < 10; i++)
        if (d[i] < '0' || d[i] > '9')
            return false;
    return true;
}

int KovDskHexEnc(const char *src, char *dst, int size)
{
    static const char digits[] = "0123456789ABCDEF";
    int n = 0;
    while (n < size - 1 && src[n] != '\0') {
        unsigned char b = static_cast<unsigned char>(src[n]);
        dst[2 * n] = digits[b >> 4];
        dst[2 * n + 1] = digits[b & 0x0F];
        n++;
    }
    dst[2 * n] = '\0';
    return 2 * n;
}

int KovDskHexDec(const char *src, char *dst)
{
    int n = 0;
    while (src[0] != '\0') {
        unsigned hi = KovDskHexNibble(src[0]);
        if (src[1] == '\0') {  // odd length: the last digit is a high half
            dst[n++] = static_cast<char>(hi << 4);
            break;
        }
        dst[n++] = static_cast<char>(hi << 4 | KovDskHexNibble(src[1]));
        src += 2;
    }
    dst[n] = '\0';
    return n;
}

int KovDskNameBuild(unsigned kind, const char *name, const char *short_tag,
                    const char *long_tag, const char *deadline, int tmp, char *out)
{
    if (KovDskNoText(name) || kind > KOVDSK_KIND_MAX || out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    memset(out, 0, kStoredMax);
    char *end = out + sprintf(out, "t%02xt", kind);
    KovDskPutHex(&end, 'n', name, KOVDSK_FNAME_BUF);
    if (!KovDskNoText(short_tag))
        KovDskPutHex(&end, 'f', short_tag, KOVDSK_STAG_BUF);
    if (!KovDskNoText(long_tag))
        KovDskPutHex(&end, 's', long_tag, KOVDSK_LTAG_BUF);
    if (KovDskIsDeadline(deadline))  // any other deadline is dropped
        end += sprintf(end, "d%.8sdm%.2sm", deadline, deadline + 8);
    memcpy(end, tmp ? ".1" : ".0", 2);
    return 0;
}

int KovDskNameParse(const char *stored, int *kind, char *name, char *short_tag,
                    char *long_tag, char *deadline, int *tmp)
{
    if (KovDskNoText(stored)) {
        errno = EINVAL;
        return -1;
    }
    // A private copy: a slot's field may be passed, and only 255 bytes count.
    char buf[kStoredMax];
    strncpy(buf, stored, kStoredMax - 1);
    buf[kStoredMax - 1] = '\0';
    size_t cursor = 0;

    // The kind comes first, asked for or not, so that its hex digits are
    // behind the cursor before any other delimiter is searched for.
    const char *k = nullptr;
    size_t klen = 0;
    int found = KovDskField(buf, &cursor, 't', &k, &klen);
    if (found < 0) {
        errno = EINVAL;
        return -1;
    }
    if (kind != nullptr) {
        unsigned value = 0;
        for (size_t i = 0; found == 1 && i < klen && isxdigit(static_cast<unsigned char>(k[i])); i++)
            value = value << 4 | KovDskHexNibble(k[i]);
        *kind = static_cast<int>(value);
    }

    if (name != nullptr && KovDskHexField(buf, &cursor, 'n', name, KOVDSK_FNAME_BUF) < 0)
        return -1;
    if (short_tag != nullptr && KovDskHexField(buf, &cursor, 'f', short_tag, KOVDSK_STAG_BUF) < 0)
        return -1;
    if (long_tag != nullptr && KovDskHexField(buf, &cursor, 's', long_tag, KOVDSK_LTAG_BUF) < 0)
        return -1;
    if (deadline != nullptr && KovDskDeadlineField(buf, &cursor, deadline) < 0)
        return -1;
    if (tmp != nullptr)
        *tmp = strstr(buf + cursor, ".0") == nullptr && strstr(buf + cursor, ".1") != nullptr;
    return 0;
}
