// The geolocation thread of the real daemon against a local stand-in for the
// two map services; coordinates are read back from vtlog.cloud_device.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <memory>

#include "daemon.h"
#include "db.h"
#include "gateway.h"
#include "http_fixture.h"

namespace {

using namespace std::chrono_literals;

const std::string AMAP_KEY = "3f1c9e0a7b5d2468ace013579bdf2468";
const std::string BAIDU_AK = "Qm7vXr2LkP9sTd4HwZb1Ne6J";

std::string amap_target(const std::string& encoded_address)
{
    return "/v3/geocode/geo?address=" + encoded_address + "&output=json&key=" + AMAP_KEY;
}

std::string baidu_target(const std::string& ip)
{
    return "/location/ip?ak=" + BAIDU_AK + "&ip=" + ip + "&coor=bd09ll";
}

std::string amap_answer(const std::string& location)
{
    return R"({"status":"1","info":"OK","infocode":"10000","count":"1","geocodes":[{"formatted_address":"x",)"
           R"("country":"CN","location":")" +
           location + R"(","level":"poi"}]})" + "\n";
}

class Lnglat : public ::testing::Test {
protected:
    void SetUp() override { db_reset(); }

    // Gateways as the table holds them before the daemon starts: a first
    // start creates the table, then the rows go in (in slot order).
    static void prepare(const std::string& values)
    {
        daemon_proc d;
        d.start();
        d.stop();
        db_exec("insert into vtlog.cloud_device(license_id12, sys_name, map_address, outip, longitude, latitude, "
                "version, time) values " +
                values);
    }

    // A daemon whose map services are WEB, with short turns: a pass every
    // 36000 x 50 us plus the sleeps' overshoot, a few seconds.
    static std::unique_ptr<daemon_proc> start(const http_fixture& web)
    {
        auto d = std::make_unique<daemon_proc>();
        std::string conf = d->path("/etc/cloud.conf");
        write_file(conf, read_file(conf) + "amap_host=" + web.host() + "\namap_key=" + AMAP_KEY +
                             "\nbaidu_host=" + web.host() + "\nbaidu_ak=" + BAIDU_AK + "\nlnglat_turn_us=50\n");
        d->start();
        return d;
    }

    // A status report with a new version: the update write that carries the
    // coordinates in memory into the table.
    static void report(const test_gateway& gw, const std::string& id)
    {
        gw.send(test_gateway::status(id));
    }

    static std::string coords(const std::string& id)
    {
        return device_row(id, "version, round(longitude, 6), round(latitude, 6)");
    }
    // WANT as the table shows it rounded: "LNG|LAT" with six decimals each.
    static bool wait_coords(const std::string& id, const std::string& want)
    {
        return wait_until([&] { return coords(id) == "V2.1.0|" + want; }, 10s);
    }
};

TEST_F(Lnglat, AddressesAreGeocodedAndOthersLocatedByTheirPublicAddress)
{
    prepare("('A1ADDR000001', 'a', '1 Main St & 2nd #5 \xe5\x8c\x97', '0', 0, 0, 'old', 0),"
            "('B2IP00000001', 'b', 'none', '16909060', 0, 0, 'old', 0),"      // 1.2.3.4
            "('C3ILLEGAL001', 'c', 'none', '84281096', 100.5, 30.25, 'old', 0),"  // 5.6.7.8
            "('D4NONE000001', 'd', 'none', '0', 0, 0, 'old', 0),"
            "('E5EMPTY00001', 'e', '', '0', 0, 0, 'old', 0)");
    const std::string addr = amap_target("1%20Main%20St%20%26%202nd%20%235%20%E5%8C%97");
    http_fixture web;
    web.answer(addr, amap_answer("116.397128,39.916527"));
    web.answer(baidu_target("1.2.3.4"), R"({"address":"CN|X|X|None|NET|0|0","content":{"address":"X",)"
                                        R"("point":{"x":"116.4","y":"39.9"}},"status":0})");
    web.answer(baidu_target("5.6.7.8"), R"({"status":2,"message":"Request Parameter Error:ip illegal"})");
    auto d = start(web);

    // Two passes: the second request for the first slot closes the first pass.
    ASSERT_TRUE(wait_until([&] { return web.count(addr) >= 2; }, 30s)) << d->log();
    // Nothing else was asked: no request for the devices without address
    // and without public address.
    for (const std::string& t : web.requests())
        EXPECT_TRUE(t == addr || t == baidu_target("1.2.3.4") || t == baidu_target("5.6.7.8")) << t;
    EXPECT_GE(web.count(baidu_target("1.2.3.4")), 1u);
    EXPECT_GE(web.count(baidu_target("5.6.7.8")), 1u);

    test_gateway gw(d->device_port());
    for (const char* id : {"A1ADDR000001", "B2IP00000001", "C3ILLEGAL001"})
        report(gw, id);
    EXPECT_TRUE(wait_coords("A1ADDR000001", "116.397128|39.916527")) << coords("A1ADDR000001");
    // The IP-location point is shifted into the map's system.
    EXPECT_TRUE(wait_coords("B2IP00000001", "116.393500|39.894000")) << coords("B2IP00000001");
    EXPECT_TRUE(wait_coords("C3ILLEGAL001", "100.500000|30.250000")) << coords("C3ILLEGAL001");
}

TEST_F(Lnglat, FailedRequestsKeepCoordinatesAndPassesGoOn)
{
    prepare("('A1GOOD000001', 'a', 'good', '0', 0, 0, 'old', 0),"
            "('B2DROP000001', 'b', 'dropped', '0', 1.5, 2.5, 'old', 0),"
            "('C3ERROR00001', 'c', 'error', '0', 3.5, 4.5, 'old', 0),"
            "('D4GARBAGE001', 'd', 'garbage', '0', 5.5, 6.5, 'old', 0),"
            "('E5ZERO000001', 'e', 'zero', '0', 7.5, 8.5, 'old', 0),"
            "('F6HANG000001', 'f', 'hang', '0', 9.5, 10.5, 'old', 0)");
    http_fixture web;
    web.answer(amap_target("good"), amap_answer("120.5,30.5"));
    // Closed without a reply right after a good answer: the good answer
    // must not be read again for this device.
    web.drop(amap_target("dropped"));
    // A refusal whose body would otherwise read as a location.
    web.answer(amap_target("error"), amap_answer("99.5,9.5"), 500);
    web.answer(amap_target("garbage"), "<html>\n{\"geocodes\":[{\"location\":\"121.");
    // Nothing found is answered as zeros on one axis.
    web.answer(amap_target("zero"), amap_answer("0.000000,31.5"));
    // Never answered: the request times out.
    web.hang(amap_target("hang"));
    auto d = start(web);

    // A second pass reaching the last device shows the thread went on after
    // the time-out.
    ASSERT_TRUE(wait_until([&] { return web.count(amap_target("hang")) >= 2; }, 40s)) << d->log();
    for (const char* t : {"good", "dropped", "error", "garbage", "zero"})
        EXPECT_GE(web.count(amap_target(t)), 2u) << t;

    test_gateway gw(d->device_port());
    for (const char* id : {"A1GOOD000001", "B2DROP000001", "C3ERROR00001", "D4GARBAGE001", "E5ZERO000001",
                           "F6HANG000001"})
        report(gw, id);
    EXPECT_TRUE(wait_coords("A1GOOD000001", "120.500000|30.500000")) << coords("A1GOOD000001");
    EXPECT_TRUE(wait_coords("B2DROP000001", "1.500000|2.500000")) << coords("B2DROP000001");
    EXPECT_TRUE(wait_coords("C3ERROR00001", "3.500000|4.500000")) << coords("C3ERROR00001");
    EXPECT_TRUE(wait_coords("D4GARBAGE001", "5.500000|6.500000")) << coords("D4GARBAGE001");
    EXPECT_TRUE(wait_coords("E5ZERO000001", "7.500000|8.500000")) << coords("E5ZERO000001");
    EXPECT_TRUE(wait_coords("F6HANG000001", "9.500000|10.500000")) << coords("F6HANG000001");

    // A shutdown in the middle of an unanswered request does not wait for
    // its time-out (5 s).
    size_t n = web.count(amap_target("hang"));
    ASSERT_TRUE(wait_until([&] { return web.count(amap_target("hang")) > n; }, 30s));
    int status = d->stop(3s);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_NE(d->log().find("thread updatelnglat exited!"), std::string::npos) << d->log();
}

}  // namespace
