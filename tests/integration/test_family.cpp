// What cache appliances and log servers share: disconnect rows under a
// moved clock and the full pool.
#include <cstdio>

#include "family_fixture.h"

namespace {

using namespace std::chrono_literals;

class Family : public FamilyFixture, public ::testing::WithParamInterface<const family_case*> {
protected:
    Family() : FamilyFixture(*GetParam()) {}
    // MAGIC + WHAT + a five-digit number: 12 characters.
    std::string id(const char* what, int i) const
    {
        char b[16];
        std::snprintf(b, sizeof(b), "%s%s%05d", fam_.magic, what, i);
        return b;
    }
    long discon_rows(const std::string& who) const
    {
        return std::stol(db_value(std::string("select count(*) from vtlog.") + fam_.discon_table +
                                  " where license_id12='" + who + "'"));
    }
};

// One row per pass for every appliance silent more than 15 s, for an hour
// after its last report, under its display name when it has one.
TEST_P(Family, DisconnectRowsForAnHour)
{
    start();
    const std::string one = id("GONE", 1), two = id("GONE", 2), three = id("GONE", 3);
    full(one);
    full(two);
    ASSERT_EQ(cmd(2053, "license_id12=" + one + " grpid=3 sysname=shown"), "ok");
    const std::string actime = value(one, fam_.actime_col);
    const long before = daemon_time();
    d_.step_clock(16);
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && discon_rows(one) >= 2 && discon_rows(two) >= 2; }, 10s));
    auto first = [&](const std::string& who) {
        return db_rows(std::string("select grpid, name, time, uptime from vtlog.") + fam_.discon_table +
                       " where license_id12='" + who + "' limit 1")[0];
    };
    auto a = first(one), b = first(two);
    EXPECT_EQ(*a[0] + "|" + *a[1] + "|" + *a[2], "3|shown|" + actime);
    EXPECT_EQ(*b[0] + "|" + *b[1], "0|" + fam_.full_report(two)["name"]);
    EXPECT_GE(std::stol(*a[3]), before + 16);

    // Past the hour: no more rows for them. A third appliance silent from
    // then on shows that passes go on.
    d_.step_clock(3600);
    full(three);
    d_.step_clock(16);
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && discon_rows(three) >= 1; }, 10s));
    const long n1 = discon_rows(one), n2 = discon_rows(two), n3 = discon_rows(three);
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && discon_rows(three) >= n3 + 2; }, 10s));
    EXPECT_EQ(discon_rows(one), n1);
    EXPECT_EQ(discon_rows(two), n2);
}

// 2000 appliances, each with its own port pair; the 2001st is refused until
// one is removed.
TEST_P(Family, PoolTakesTwoThousand)
{
    start();
    // In batches, so that no receive buffer overflows.
    for (int i = 1; i <= 2000; i++) {
        box_->send("key=" + id("FULL", i) + " name=n" + std::to_string(i));
        if (i % 200 == 0) {
            ASSERT_TRUE(wait_until([&] { return total() == i; }, 10s)) << i << " " << total();
        }
    }
    const std::string late = id("FULL", 2001);
    box_->send("key=" + late + " name=late");
    report("key=" + id("FULL", 1) + " name=n1 " + fam_.figure + "=7", id("FULL", 1), fam_.figure_col, "7");
    EXPECT_EQ(total(), 2000);
    EXPECT_TRUE(listed(late).empty());
    EXPECT_EQ(cmd(2050), "device_pool=2000/2000[total/use]\ndevice_total=2000\ndevice_fail=0\ndevice_exp=0\n");
    ASSERT_TRUE(d_.db_settled(30s));
    EXPECT_EQ(db_value(std::string("select count(distinct webport) from vtlog.") + fam_.list_table), "2000");
    EXPECT_EQ(row(id("FULL", 2000), "webport, sshport"),
              std::to_string(fam_.first_port + 1999) + "|" + std::to_string(fam_.first_port + 2000));

    EXPECT_EQ(cmd(2052, "license_id12=" + id("FULL", 1000)), "ok");
    report("key=" + late + " name=late", late, fam_.name_col, "late");
    EXPECT_EQ(total(), 2000);
}

INSTANTIATE_TEST_SUITE_P(TextFamilies, Family, ::testing::Values(&kFrbCase, &kLogCase),
                         [](const auto& info) { return std::string(info.param->module); });

}  // namespace
