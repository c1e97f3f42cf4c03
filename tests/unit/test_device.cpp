// The one string hash, the fixed pool template and the device name lookup.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cloud.h"
#include "ipe_jhash.h"
#include "ipe_pool.h"

namespace {

TEST(DeviceHash, KnownValues)
{
    // Reference values of lookup2 with initial value 0.
    EXPECT_EQ(ipe_jhash(""), 0xbd49d10du);
    EXPECT_EQ(ipe_jhash("a"), 0x29eec818u);
    EXPECT_EQ(ipe_jhash("GW0000000001"), 0xcbd1f9a2u);  // one round in the loop
    EXPECT_EQ(ipe_jhash("abcdefghijklmnopqrstuvwxyz"), 0xc52fcee8u);
    EXPECT_EQ(ipe_jhash("\xff\xfe"), 0xb8370c52u);  // bytes are unsigned
    EXPECT_EQ(device_hash("TEMP12345678"), 23);
    EXPECT_EQ(device_hash(""), 13);
}

struct rec {
    char key[16];
    int payload;
    rec* next;
};
using small_pool = ipe_pool<rec, 4, 2, &rec::key>;

rec* put(small_pool& p, const char* k)
{
    rec* r = p.alloc();
    if (r != nullptr) {
        std::snprintf(r->key, sizeof(r->key), "%s", k);
        p.link(r);
    }
    return r;
}

TEST(FixedPool, FreeListOrderChainsAndReuse)
{
    small_pool p;
    ASSERT_EQ(p.init(), 0);
    rec* a = put(p, "a");
    rec* b = put(p, "b");
    rec* c = put(p, "c");
    rec* d = put(p, "d");
    EXPECT_EQ(a, p.slot(0));
    EXPECT_EQ(d, p.slot(3));
    EXPECT_EQ(put(p, "e"), nullptr);  // full: refused, nothing else changes
    EXPECT_EQ(p.count(), 4u);
    EXPECT_EQ(p.last(), d);

    // With two chains at least two keys share one; taking the older one off
    // leaves the newer one reachable, and the reverse.
    for (const char* k : {"a", "b", "c", "d"})
        EXPECT_EQ(p.find(k)->key, std::string(k));
    rec* first = nullptr;
    rec* second = nullptr;
    for (rec* x : {a, b, c, d})
        for (rec* y : {a, b, c, d})
            if (x < y && small_pool::bucket(x->key) == small_pool::bucket(y->key))
                first = x, second = y;
    ASSERT_NE(first, nullptr);
    std::string fk = first->key;
    p.release(p.unlink(fk.c_str()));
    EXPECT_EQ(p.find(fk.c_str()), nullptr);
    EXPECT_EQ(p.find(second->key), second);
    EXPECT_EQ(p.unlink("zz"), nullptr);
    EXPECT_EQ(p.count(), 3u);
    EXPECT_FALSE(small_pool::inuse(first));
    EXPECT_EQ(first->payload, 0);

    // The freed slot is handed out next; the high-water mark stays.
    EXPECT_EQ(put(p, "n"), first);
    EXPECT_EQ(p.last(), d);
    int seen = 0;
    p.each([&](rec*) { seen++; });
    EXPECT_EQ(seen, 4);
    std::free(p.first());  // pools live as long as the daemon; this one does not
}

TEST(DevicePool, DisplayNameLookupKeepsItsShortCopy)
{
    static bool ready = cloud_devpool_init() == 0;
    ASSERT_TRUE(ready);
    devlist_t* d = _devpool.alloc();
    ASSERT_NE(d, nullptr);
    std::snprintf(d->license_id12, sizeof(d->license_id12), "NAME00000001");
    std::snprintf(d->sys_name, sizeof(d->sys_name), "abcdefghijklmnopqrst");
    d->grpid = 42;
    _devpool.link(d);

    char name[16];
    uint16_t grp = 7;
    device_getsysname("NAME00000001", name, sizeof(name), &grp);
    EXPECT_STREQ(name, "abcdefghijklmn");  // 14 of 20: the bound is size - 1
    EXPECT_EQ(grp, 42);
    std::snprintf(d->sys_name2, sizeof(d->sys_name2), "shown");
    device_getsysname("NAME00000001", name, sizeof(name), &grp);
    EXPECT_STREQ(name, "shown");

    grp = 7;
    std::memset(name, 'x', sizeof(name));
    device_getsysname("UNKNOWN", name, sizeof(name), &grp);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(grp, 7);

    EXPECT_EQ(device_upiport("NAME00000001", "10.1.2.3", 4242), d);
    EXPECT_EQ(d->outip, 0x0a010203u);
    EXPECT_EQ(d->outport, 4242);
    EXPECT_EQ(device_upiport("UNKNOWN", "10.1.2.3", 1), nullptr);
    _devpool.release(_devpool.unlink("NAME00000001"));
}

}  // namespace
