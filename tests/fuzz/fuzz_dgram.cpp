// Gateway datagrams: a run of datagrams separated by "|NEXT|", each from
// its own address, through the handler the receive loop calls; a piece
// "@N" moves the clock N seconds instead. Two devices are known before the
// run. The clock moves 31 s per datagram and the silence scan sweeps the
// pool after each, so devices fall silent and come back; when the first
// byte's low five bits are 00001 the disconnect notices (files named by the appliance's
// identifier) are written under the private root. An input that moves the
// clock ends with one disconnect sweep, which records silent devices and
// removes stale temporary ones.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "cloud.h"
#include "frelbox.h"
#include "logserver.h"
#include "fuzz_common.h"
#include "jos_thread.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::make_root();
    fuzz::fill_writer_queue();
    if (cloud_devpool_init() != 0)
        __builtin_trap();
    // The cache-appliance and log-server pools (their tables are not
    // reachable here; the start-up statements just fail).
    frelbox_module.init(nullptr);
    logserver_module.init(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint32_t now = 1700000000;
    // Notices (a file written and renamed each) and the sweep are slow: one
    // input in thirty-two turns the notices on, and only inputs that move
    // the clock run the sweep.
    fuzz::registry_reset(size > 0 && (data[0] & 31) == 1);
    fuzz::set_clock(now);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS, "GW0000000001", "V5.1 [9.2]", "gw one", "", 10, 100), 0x0a000001,
                     40000);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS3, "TEMP00000001", "V4.0 [8.0]", "temp", "branch", 100, 100),
                     0x0a000002, 40001);

    uint32_t i = 0;
    bool stepped = false;
    for (std::string_view d : fuzz::split({reinterpret_cast<const char*>(data), size})) {
        // "@N": no datagram, the clock moves N seconds instead.
        if (d.size() > 1 && d[0] == '@') {
            now += static_cast<uint32_t>(std::strtoul(std::string(d.substr(1, 9)).c_str(), nullptr, 10));
            fuzz::set_clock(now);
            stepped = true;
            continue;
        }
        fuzz::set_clock(now += 31);
        fuzz::feed_dgram(d, 0xc0a80000u + i, static_cast<uint16_t>(50000 + i));
        for (size_t k = 0; k <= _devpool.index(_devpool.last()); k++)
            cloud_silence_check();
        i++;
    }
    static jos_thread_t sweeper{};
    if (stepped)
        getdisconinfo(&sweeper);
    fuzz::check_registry();
    return 0;
}
