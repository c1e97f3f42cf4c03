// Scanners of the map services' answers, the request URLs and the turn
// period setting of the geolocation thread.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "lnglat.h"

namespace {

using scanner = int (*)(FILE*, double*, double*);

// Runs SCAN over TEXT. The buffer holds exactly the text's bytes, so a read
// past the end of a line shows under AddressSanitizer.
struct scanned {
    int rc;
    double lng, lat;
};
scanned scan(scanner fn, const std::string& text)
{
    scanned r = {-2, 1234.5, 1234.5};
    std::string buf = text;
    FILE* f = fmemopen(buf.data(), buf.size(), "r");
    if (f == nullptr)
        return r;
    r.rc = fn(f, &r.lng, &r.lat);
    std::fclose(f);
    return r;
}

TEST(LnglatAmap, ReadsTheGeocodedLocation)
{
    auto r = scan(lnglat_scan_amap,
                  R"({"status":"1","info":"OK","count":"1","geocodes":[{"formatted_address":"X","country":"CN",)"
                  R"("location":"116.397128,39.916527","level":"poi"}]})"
                  "\n");
    ASSERT_EQ(r.rc, 0);
    EXPECT_DOUBLE_EQ(r.lng, 116.397128);
    EXPECT_DOUBLE_EQ(r.lat, 39.916527);

    // No final line end, and the last of several lines wins.
    r = scan(lnglat_scan_amap, "\"location\":\"1.5,2.5\"\nother\n\"location\":\"-73.25,40.75\"");
    ASSERT_EQ(r.rc, 0);
    EXPECT_DOUBLE_EQ(r.lng, -73.25);
    EXPECT_DOUBLE_EQ(r.lat, 40.75);

    // A later broken location line does not undo an earlier good one.
    r = scan(lnglat_scan_amap, "\"location\":\"1.5,2.5\"\n\"location\":\"9\n");
    ASSERT_EQ(r.rc, 0);
    EXPECT_DOUBLE_EQ(r.lng, 1.5);
}

TEST(LnglatAmap, NothingUsableGivesNoPair)
{
    const char* texts[] = {
        "",
        R"({"status":"0","info":"INVALID_USER_KEY","infocode":"10001"})",
        R"({"status":"1","count":"0","geocodes":[]})",
        "location",                    // the word at the very end
        "xx\"location\":",             // shorter than the skip
        "\"location\":\"",             // exactly the skip, then nothing
        "\"location\":\"116.39",       // cut before the comma
        "\"location\":\"116.39,39.9",  // cut before the closing quote
        "<html>302 Found</html>\n",
        // A short line leaves the previous, longer one behind it in the
        // line buffer: the skip must not reach into those old bytes.
        "AAAAAAAAAAA7.5,8.5\"\nlocation\n",
    };
    for (const char* t : texts) {
        auto r = scan(lnglat_scan_amap, t);
        EXPECT_EQ(r.rc, -1) << t;
        EXPECT_EQ(r.lng, 1234.5) << t;  // untouched
    }
}

TEST(LnglatAmap, LongLinesArriveInPieces)
{
    // 1023 characters per read: the word lands at the very end of the
    // first piece and its value in the next one, which has no word.
    std::string text(1023 - 8, 'a');
    text += "location\":\"1.5,2.5\"\n";
    EXPECT_EQ(scan(lnglat_scan_amap, text).rc, -1);

    // Within one piece it is found however far in.
    std::string ok(1000, 'a');
    ok += "\"location\":\"3.5,4.5\"";
    auto r = scan(lnglat_scan_amap, ok);
    ASSERT_EQ(r.rc, 0);
    EXPECT_DOUBLE_EQ(r.lat, 4.5);
}

TEST(LnglatBaidu, PointIsShiftedIntoTheMapSystem)
{
    auto r = scan(lnglat_scan_baidu,
                  R"({"address":"CN|X|X|None|NET|0|0","content":{"address":"X","address_detail":{"city":"X"},)"
                  R"("point":{"x":"116.4","y":"39.9"}},"status":0})"
                  "\n");
    ASSERT_EQ(r.rc, 0);
    EXPECT_NEAR(r.lng, 116.3935, 1e-9);
    EXPECT_NEAR(r.lat, 39.894, 1e-9);

    // The first point line is the one read.
    r = scan(lnglat_scan_baidu, "\"point\":{\"x\":\"10\",\"y\":\"20\"}\n\"point\":{\"x\":\"30\",\"y\":\"40\"}\n");
    ASSERT_EQ(r.rc, 0);
    EXPECT_NEAR(r.lng, 10 - 0.0065, 1e-9);
    EXPECT_NEAR(r.lat, 20 - 0.006, 1e-9);
}

TEST(LnglatBaidu, IllegalBrokenAndGarbageGiveNoPair)
{
    const char* texts[] = {
        "",
        R"({"status":2,"message":"Request Parameter Error:ip illegal"})",
        // "illegal" ends the reading, even with a point after it
        "illegal\n\"point\":{\"x\":\"116.4\",\"y\":\"39.9\"}\n",
        // a broken first point line is not made up for by a later one
        "\"point\":{\"x\":\"116.4\n\"point\":{\"x\":\"116.4\",\"y\":\"39.9\"}\n",
        "point",
        "\"point\":{\"x",
        "\"point\":{\"x\":\"",
        "\"point\":{\"x\":\"116.4\"",      // the quote after x is the last byte
        "\"point\":{\"x\":\"116.4\",\"y",  // cut inside the skip to y
        "\"point\":{\"x\":\"116.4\",\"y\":\"39.9",
        "\xff\xfe\x01point\x01",
        // Old bytes behind a short line, where x and where y would start.
        "AAAAAAAAAAAAA116.4\",\"y\":\"39.9\"\npoint\n",
        "AAAAAAAAAAAAAAAAAAAAAA39.9\"\n\"point\":{\"x\":\"1\"\n",
    };
    for (const char* t : texts) {
        auto r = scan(lnglat_scan_baidu, t);
        EXPECT_EQ(r.rc, -1) << t;
        EXPECT_EQ(r.lng, 1234.5) << t;
    }
    // A NUL inside the answer hides what follows it on that line.
    static const char nulled[] = "\"point\":{\"x\":\"1\0\",\"y\":\"2\"}";
    std::string nul(nulled, sizeof(nulled) - 1);
    EXPECT_EQ(scan(lnglat_scan_baidu, nul).rc, -1);
}

TEST(LnglatConf, UrlsAndTurnPeriod)
{
    EXPECT_EQ(lnglat_amap_url("127.0.0.1:8080", "1 Main St & 2nd #5/\xe5\x8c\x97", "3f1c9e0a7b5d2468ace013579bdf2468"),
              "http://127.0.0.1:8080/v3/geocode/geo?address=1%20Main%20St%20%26%202nd%20%235%2F%E5%8C%97"
              "&output=json&key=3f1c9e0a7b5d2468ace013579bdf2468");
    EXPECT_EQ(lnglat_baidu_url("api.example", "Qm7vXr2LkP9sTd4HwZb1Ne6J", 0x01020304u),
              "http://api.example/location/ip?ak=Qm7vXr2LkP9sTd4HwZb1Ne6J&ip=1.2.3.4&coor=bd09ll");
    EXPECT_EQ(lnglat_baidu_url("h", "k", 0xC0A801FEu), "http://h/location/ip?ak=k&ip=192.168.1.254&coor=bd09ll");

    EXPECT_EQ(lnglat_turn_period("50"), 50);
    EXPECT_EQ(lnglat_turn_period("1"), 1);
    EXPECT_EQ(lnglat_turn_period("1000000"), 1000000);
    for (const char* bad : {"", "0", "-5", "1000001", "50us", "abc", "99999999999999999999"})
        EXPECT_EQ(lnglat_turn_period(bad), LNGLAT_TURN_US) << bad;
}

}  // namespace
