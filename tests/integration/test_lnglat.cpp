// The geolocation thread of the real daemon against a local stand-in for the
// two map services; coordinates are read back from vtlog.cloud_device.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>

#include "daemon.h"
#include "db.h"
#include "gateway.h"
#include "http_fixture.h"

namespace {

using namespace std::chrono_literals;

const std::string AMAP_KEY = "3f1c9e0a7b5d2468ace013579bdf2468", BAIDU_AK = "Qm7vXr2LkP9sTd4HwZb1Ne6J";

std::string amap(const std::string& encoded_address)
{
    return "/v3/geocode/geo?address=" + encoded_address + "&output=json&key=" + AMAP_KEY;
}
std::string baidu(const std::string& ip) { return "/location/ip?ak=" + BAIDU_AK + "&ip=" + ip + "&coor=bd09ll"; }
std::string amap_answer(const std::string& location)
{
    return R"({"status":"1","info":"OK","count":"1","geocodes":[{"country":"CN","location":")" + location +
           R"(","level":"poi"}]})" + "\n";
}

// One daemon, one pass after another over every kind of device. The rows go
// in after a first start has created the table; slots follow their order.
TEST(Lnglat, PassesLocateGoodAnswersKeepCoordinatesOnFailureAndGoOn)
{
    db_reset();
    {
        daemon_proc first;
        first.start();
        first.stop();
    }
    db_exec("insert into vtlog.cloud_device(license_id12, sys_name, map_address, outip, longitude, latitude, "
            "version, time) values "
            "('A1ADDR000001', 'a', '1 Main St & 2nd #5 \xe5\x8c\x97', '0', 0, 0, 'old', 0),"
            "('B2DROP000001', 'b', 'dropped', '0', 1.5, 2.5, 'old', 0),"
            "('C3IP00000001', 'c', 'none', '16909060', 0, 0, 'old', 0),"           // 1.2.3.4
            "('D4ILLEGAL001', 'd', 'none', '84281096', 100.5, 30.25, 'old', 0),"  // 5.6.7.8
            "('E5NONE000001', 'e', 'none', '0', 0, 0, 'old', 0),"
            "('F6EMPTY00001', 'f', '', '0', 0, 0, 'old', 0),"
            "('G7ERROR00001', 'g', 'error', '0', 3.5, 4.5, 'old', 0),"
            "('H8GARBAGE001', 'h', 'garbage', '0', 5.5, 6.5, 'old', 0),"
            "('I9ZERO000001', 'i', 'zero', '0', 7.5, 8.5, 'old', 0),"
            "('J0HANG000001', 'j', 'hang', '0', 9.5, 10.5, 'old', 0)");

    const std::string addr = amap("1%20Main%20St%20%26%202nd%20%235%20%E5%8C%97");
    http_fixture web;
    web.answer(addr, amap_answer("116.397128,39.916527"));
    // Closed without a reply right after a good answer: that answer must not
    // be read again for this device.
    web.answer(amap("dropped"), "", http_fixture::DROP);
    // The point comes back shifted into the map's system.
    web.answer(baidu("1.2.3.4"), R"({"address":"CN|X|X|None|NET|0|0","content":{"address":"X",)"
                                 R"("point":{"x":"116.4","y":"39.9"}},"status":0})");
    web.answer(baidu("5.6.7.8"), R"({"status":2,"message":"Request Parameter Error:ip illegal"})");
    // A refusal whose body would otherwise read as a location.
    web.answer(amap("error"), amap_answer("99.5,9.5"), 500);
    web.answer(amap("garbage"), "<html>\n{\"geocodes\":[{\"location\":\"121.");
    web.answer(amap("zero"), amap_answer("0.000000,31.5"));  // nothing found: zero on one axis
    web.answer(amap("hang"), "", http_fixture::HANG);         // times out after 5 s

    // Short turns: a pass every 36000 turns, about four seconds.
    daemon_proc d;
    std::string conf = d.path("/etc/cloud.conf");
    write_file(conf, read_file(conf) + "amap_host=" + web.host() + "\namap_key=" + AMAP_KEY + "\nbaidu_host=" +
                         web.host() + "\nbaidu_ak=" + BAIDU_AK + "\nlnglat_turn_us=1\n");
    d.start();

    // The last device's request: the first pass has been everywhere else.
    ASSERT_TRUE(wait_until([&] { return web.count(amap("hang")) >= 1; }, 30s)) << d.log();
    const std::vector<std::string> asked = {addr,         amap("dropped"), baidu("1.2.3.4"), baidu("5.6.7.8"),
                                            amap("error"), amap("garbage"), amap("zero"),     amap("hang")};
    // Nothing for the devices without address and without public address.
    for (const std::string& t : web.requests())
        EXPECT_NE(std::find(asked.begin(), asked.end(), t), asked.end()) << t;

    // A status report with a new version writes the coordinates held in
    // memory into the table.
    const std::pair<const char*, const char*> want[] = {
        {"A1ADDR000001", "116.397128|39.916527"}, {"B2DROP000001", "1.500000|2.500000"},
        {"C3IP00000001", "116.393500|39.894000"}, {"D4ILLEGAL001", "100.500000|30.250000"},
        {"G7ERROR00001", "3.500000|4.500000"},    {"H8GARBAGE001", "5.500000|6.500000"},
        {"I9ZERO000001", "7.500000|8.500000"},    {"J0HANG000001", "9.500000|10.500000"},
    };
    test_gateway gw(d.device_port());
    for (auto [id, lnglat] : want)
        gw.send(test_gateway::status(id));
    for (auto [id, lnglat] : want) {
        auto coords = [id] { return device_row(id, "version, round(longitude, 6), round(latitude, 6)"); };
        EXPECT_TRUE(wait_until([&] { return coords() == std::string("V2.1.0|") + lnglat; }, 10s)) << coords();
    }

    // After the time-out the next pass comes round again.
    ASSERT_TRUE(wait_until([&] { return web.count(amap("hang")) >= 2; }, 30s)) << d.log();
    // A shutdown in the middle of that unanswered request does not wait
    // for its time-out.
    int status = d.stop(3s);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_NE(d.log().find("thread updatelnglat exited!"), std::string::npos) << d.log();
}

}  // namespace
