// The stored-name codec: hex coding, building and parsing, the cursor rules
// and fields over their limits.
#include <gtest/gtest.h>

#include "store/store.h"

#include <cstring>
#include <string>

namespace {

struct Parsed {
    int rc = 0, kind = -1, tmp = -1;
    char name[33], stag[17], ltag[65], deadline[11];
};

// Each caller buffer at the size callers give, a canary behind each.
struct Box {
    char name[33], g1[8], stag[17], g2[8], ltag[65], g3[8], deadline[11], g4[8];
};

// Parses with every value asked for, and checks nothing was written past
// the buffers.
Parsed ParseAll(const char *stored)
{
    Box box;
    memset(&box, 0x5A, sizeof box);
    Parsed p;
    p.rc = KovDskNameParse(stored, &p.kind, box.name, box.stag, box.ltag, box.deadline, &p.tmp);
    for (const char *g : {box.g1, box.g2, box.g3, box.g4})
        for (int i = 0; i < 8; i++)
            EXPECT_EQ(g[i], 0x5A) << "write past a buffer for " << stored;
    memcpy(p.name, box.name, sizeof p.name);
    memcpy(p.stag, box.stag, sizeof p.stag);
    memcpy(p.ltag, box.ltag, sizeof p.ltag);
    memcpy(p.deadline, box.deadline, sizeof p.deadline);
    return p;
}

std::string Build(unsigned kind, const char *name, const char *stag, const char *ltag,
                  const char *deadline, int tmp)
{
    char out[256];
    memset(out, 'X', sizeof out);
    if (KovDskNameBuild(kind, name, stag, ltag, deadline, tmp, out) != 0)
        return "error";
    for (size_t i = strlen(out); i < sizeof out; i++)
        EXPECT_EQ(out[i], 0) << "byte " << i << " not cleared";
    return out;
}

} // namespace

TEST(Codec, HexEncodingBoundsSourceBytesBySize)
{
    char out[200];
    EXPECT_EQ(KovDskHexEnc("abc", out, 33), 6);
    EXPECT_STREQ(out, "616263");
    EXPECT_EQ(KovDskHexEnc("\xff\x01", out, 33), 4);
    EXPECT_STREQ(out, "FF01");
    std::string forty(40, 'z');
    EXPECT_EQ(KovDskHexEnc(forty.c_str(), out, 33), 64);
    EXPECT_EQ(KovDskHexEnc(forty.c_str(), out, 1), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(KovDskHexEnc("", out, 33), 0);
    EXPECT_STREQ(out, "");
}

TEST(Codec, HexDecodingTakesBothCasesAndOddLengths)
{
    char out[64];
    KovDskHexDec("616263", out);
    EXPECT_STREQ(out, "abc");
    KovDskHexDec("6d656D6F", out);
    EXPECT_STREQ(out, "memo");
    KovDskHexDec("414", out);  // the last digit is a high half
    EXPECT_STREQ(out, "A@");
    KovDskHexDec("", out);
    EXPECT_STREQ(out, "");
}

TEST(Codec, WorkedExampleRoundTripsByteForByte)
{
    std::string stored = Build(42, "abc", "xy", "memo", "2601311530", 1);
    EXPECT_EQ(stored, "t2atn616263nf7879fs6D656D6Fsd26013115dm30m.1");
    EXPECT_EQ(stored.size(), 44u);
    Parsed p = ParseAll(stored.c_str());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.kind, 42);
    EXPECT_STREQ(p.name, "abc");
    EXPECT_STREQ(p.stag, "xy");
    EXPECT_STREQ(p.ltag, "memo");
    EXPECT_STREQ(p.deadline, "2601311530");
    EXPECT_EQ(p.tmp, 1);
}

TEST(Codec, BuildingRefusesAndDropsAsTold)
{
    EXPECT_EQ(Build(0, "a", nullptr, nullptr, nullptr, 0), "t00tn61n.0");
    EXPECT_EQ(Build(255, "a", "", "", nullptr, 7), "tfftn61n.1");
    EXPECT_EQ(Build(256, "a", nullptr, nullptr, nullptr, 0), "error");
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Build(1, "", nullptr, nullptr, nullptr, 0), "error");
    EXPECT_EQ(Build(1, nullptr, nullptr, nullptr, nullptr, 0), "error");
    EXPECT_EQ(KovDskNameBuild(1, "a", nullptr, nullptr, nullptr, 0, nullptr), -1);
    for (const char *bad : {"260131153", "26013115305", "26013115ab", ""})
        EXPECT_EQ(Build(1, "a", nullptr, nullptr, bad, 0), "t01tn61n.0") << bad;

    // Over-long values are cut to their limits; the longest name is 250 bytes.
    std::string name(40, 'N'), stag(20, 'S'), ltag(70, 'L');
    std::string longest = Build(255, name.c_str(), stag.c_str(), ltag.c_str(), "9912312359", 1);
    EXPECT_EQ(longest.size(), 250u);
    Parsed p = ParseAll(longest.c_str());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(std::string(p.name), name.substr(0, 32));
    EXPECT_EQ(std::string(p.stag), stag.substr(0, 16));
    EXPECT_EQ(std::string(p.ltag), ltag.substr(0, 64));
}

TEST(Codec, OddNamesParseByTheCursorRules)
{
    // Kind digits that are delimiter letters.
    for (unsigned kind : {13u, 15u, 223u, 253u}) {
        std::string s = Build(kind, "abc", "xy", nullptr, "2601311530", 0);
        Parsed p = ParseAll(s.c_str());
        ASSERT_EQ(p.rc, 0) << s;
        EXPECT_EQ(p.kind, (int)kind);
        EXPECT_STREQ(p.stag, "xy");
        char deadline[11];
        ASSERT_EQ(KovDskNameParse(s.c_str(), nullptr, nullptr, nullptr, nullptr, deadline, nullptr), 0);
        EXPECT_STREQ(deadline, "2601311530") << s;
    }

    Parsed p = ParseAll("t2atn616263n.1");
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.kind, 42);
    EXPECT_STREQ(p.name, "abc");
    EXPECT_STREQ(p.stag, "");
    EXPECT_STREQ(p.ltag, "");
    EXPECT_STREQ(p.deadline, "");
    EXPECT_EQ(p.tmp, 1);

    // A d piece without an m piece gives the d text alone.
    p = ParseAll("t01tn41nd26013115d.0");
    ASSERT_EQ(p.rc, 0);
    EXPECT_STREQ(p.deadline, "26013115");

    // A missing closing delimiter fails only when that field is asked for.
    EXPECT_EQ(ParseAll("t2atn6162").rc, -1);
    EXPECT_EQ(errno, EINVAL);
    int kind = -1;
    EXPECT_EQ(KovDskNameParse("t2atn6162", &kind, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(kind, 42);
    EXPECT_EQ(ParseAll("t2a").rc, -1);
    EXPECT_EQ(ParseAll("t01tn41nd26013115dm30").rc, -1);

    // No delimiter at all parses to kind 0 and empty values; no flag is 0.
    p = ParseAll("ABC");
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.kind, 0);
    EXPECT_STREQ(p.name, "");
    EXPECT_EQ(p.tmp, 0);
    EXPECT_EQ(ParseAll("t01tn41n").tmp, 0);
    EXPECT_EQ(ParseAll(nullptr).rc, -1);
    EXPECT_EQ(ParseAll("").rc, -1);
}

TEST(Codec, FieldsOverTheirLimitsAreRefusedNeverWrittenPast)
{
    std::string name66 = "t01tn" + std::string(66, 'A') + "n.0";
    std::string stag34 = "t01tn41nf" + std::string(34, 'B') + "f.0";
    std::string ltag130 = "t01tn41ns" + std::string(130, 'C') + "s.0";
    std::string d9 = "t01tn41nd123456789dm30m.0";
    std::string m3 = "t01tn41nd12345678dm301m.0";
    for (const std::string &s : {name66, stag34, ltag130, d9, m3})
        EXPECT_EQ(ParseAll(s.c_str()).rc, -1) << s;
    // At the limits they parse.
    EXPECT_EQ(ParseAll(("t01tn" + std::string(64, 'A') + "n.0").c_str()).rc, 0);

    // Only the first 255 bytes are read: a cut closing delimiter fails, a
    // flag piece lost to the cut gives 0.
    std::string cut = "t01tn41nf" + std::string(300, '0') + "f.1";
    EXPECT_EQ(ParseAll(cut.c_str()).rc, -1);
    std::string lostflag = "t01tn41n" + std::string(260, 'Z') + ".1";
    Parsed p = ParseAll(lostflag.c_str());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.tmp, 0);
}
