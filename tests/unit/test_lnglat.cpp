// Scanners of the map services' answers, the request URLs and the turn
// period setting of the geolocation thread.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "lnglat.h"

namespace {

using namespace std::string_literals;
using scanner = int (*)(FILE*, double*, double*);
const scanner AMAP = lnglat_scan_amap, BAIDU = lnglat_scan_baidu;

// Each answer is scanned from a buffer of exactly its bytes, so a read past
// the end of a line shows under AddressSanitizer. Without a pair the
// outputs stay untouched.
TEST(Lnglat, ScannersFindThePairOrNothing)
{
    const double NONE = 1234.5;
    const std::string long_piece = std::string(1023 - 8, 'a') + "location\":\"1.5,2.5\"\n";
    const struct {
        scanner fn;
        std::string text;
        double lng, lat;
    } cases[] = {
        {AMAP, R"({"status":"1","count":"1","geocodes":[{"location":"116.397128,39.916527","level":"poi"}]})" "\n",
         116.397128, 39.916527},
        // The last location line wins, a final line end is optional, and a
        // later broken line does not undo an earlier good one.
        {AMAP, "\"location\":\"1.5,2.5\"\nother\n\"location\":\"-73.25,40.75\"", -73.25, 40.75},
        {AMAP, "\"location\":\"1.5,2.5\"\n\"location\":\"9\n", 1.5, 2.5},
        {AMAP, std::string(1000, 'a') + "\"location\":\"3.5,4.5\"", 3.5, 4.5},
        // Lines of over 1023 characters arrive in pieces: here the word ends
        // the first piece and its value is in the next one.
        {AMAP, long_piece, NONE, NONE},
        {AMAP, "", NONE, NONE},
        {AMAP, R"({"status":"0","info":"INVALID_USER_KEY","infocode":"10001"})", NONE, NONE},
        {AMAP, "location", NONE, NONE},
        {AMAP, "xx\"location\":", NONE, NONE},  // shorter than the skip
        {AMAP, "\"location\":\"", NONE, NONE},  // exactly the skip
        {AMAP, "\"location\":\"116.39", NONE, NONE},
        {AMAP, "\"location\":\"116.39,39.9", NONE, NONE},
        // A short line leaves the previous, longer one behind it in the line
        // buffer: the skip must not reach into those old bytes.
        {AMAP, "AAAAAAAAAAA7.5,8.5\"\nlocation\n", NONE, NONE},

        // The service's own offset system is shifted back by a fixed amount.
        {BAIDU, R"({"address":"CN|X|X|None|NET|0|0","content":{"point":{"x":"116.4","y":"39.9"}},"status":0})" "\n",
         116.3935, 39.894},
        {BAIDU, "\"point\":{\"x\":\"10\",\"y\":\"20\"}\n\"point\":{\"x\":\"30\",\"y\":\"40\"}\n", 9.9935, 19.994},
        {BAIDU, R"({"status":2,"message":"Request Parameter Error:ip illegal"})", NONE, NONE},
        // "illegal" ends the reading; a broken first point line is final.
        {BAIDU, "illegal\n\"point\":{\"x\":\"116.4\",\"y\":\"39.9\"}\n", NONE, NONE},
        {BAIDU, "\"point\":{\"x\":\"116.4\n\"point\":{\"x\":\"116.4\",\"y\":\"39.9\"}\n", NONE, NONE},
        {BAIDU, "", NONE, NONE},
        {BAIDU, "\"point\":{\"x", NONE, NONE},
        {BAIDU, "\"point\":{\"x\":\"", NONE, NONE},
        {BAIDU, "\"point\":{\"x\":\"116.4\"", NONE, NONE},  // the quote after x is the last byte
        {BAIDU, "\"point\":{\"x\":\"116.4\",\"y", NONE, NONE},
        {BAIDU, "\"point\":{\"x\":\"116.4\",\"y\":\"39.9", NONE, NONE},
        {BAIDU, "\"point\":{\"x\":\"1\0\",\"y\":\"2\"}"s, NONE, NONE},  // NUL hides the rest
        // Old bytes behind a short line, where x and where y would start.
        {BAIDU, "AAAAAAAAAAAAA116.4\",\"y\":\"39.9\"\npoint\n", NONE, NONE},
        {BAIDU, "AAAAAAAAAAAAAAAAAAAAAA39.9\"\n\"point\":{\"x\":\"1\"\n", NONE, NONE},
    };
    for (const auto& c : cases) {
        std::string buf = c.text;
        FILE* f = fmemopen(buf.data(), buf.size(), "r");
        ASSERT_NE(f, nullptr);
        double lng = NONE, lat = NONE;
        EXPECT_EQ(c.fn(f, &lng, &lat), c.lng == NONE ? -1 : 0) << c.text;
        std::fclose(f);
        EXPECT_NEAR(lng, c.lng, 1e-9) << c.text;
        EXPECT_NEAR(lat, c.lat, 1e-9) << c.text;
    }
}

TEST(Lnglat, UrlsAndTurnPeriod)
{
    EXPECT_EQ(lnglat_amap_url("127.0.0.1:8080", "1 Main St & 2nd #5/\xe5\x8c\x97", "3f1c9e0a7b5d2468ace013579bdf2468"),
              "http://127.0.0.1:8080/v3/geocode/geo?address=1%20Main%20St%20%26%202nd%20%235%2F%E5%8C%97"
              "&output=json&key=3f1c9e0a7b5d2468ace013579bdf2468");
    EXPECT_EQ(lnglat_baidu_url("h", "k", 0xC0A801FEu), "http://h/location/ip?ak=k&ip=192.168.1.254&coor=bd09ll");
    for (const char* ok : {"1", "50", "1000000"})
        EXPECT_EQ(lnglat_turn_period(ok), std::stol(ok));
    for (const char* bad : {"", "0", "-5", "1000001", "50us", "abc", "99999999999999999999"})
        EXPECT_EQ(lnglat_turn_period(bad), LNGLAT_TURN_US) << bad;
}

}  // namespace
