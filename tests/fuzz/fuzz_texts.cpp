// Text reports of gateways that go to the job modules: the first byte picks
// the handler (game node report, user application report, the two table
// relays' reports and answers), the rest is the text. After every 64th
// input the modules' listings are taken, so that what the reports stored
// is printed too: the pools keep what every input of the run stored (up to
// 2000 records), and sorting and printing them after each input would make
// every input slow.
#include <cstdint>
#include <string>

#include "cloud.h"
#include "fuzz_common.h"
#include "jos_cmds.h"
#include "table_relay.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::make_root();
    fuzz::fill_writer_queue();
    if (cloud_devpool_init() != 0 || gamecloud_module.init(nullptr) != 0)
        __builtin_trap();
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS, "GW0000000001", "V5.1", "gw", "", 1, 100), 0x0a000001, 40000);
    return 0;
}

namespace {

// Runs one command of MODULE's ioctl into a reply area of its own.
void list(jos_module_t& module, int code, const char* args)
{
    static char reply[1 << 16];
    std::string arg = args;
    jos_cmdarg_t ca{};
    ca.ca_cmd = code;
    ca.ca_arg = arg.data();
    ca.ca_result = reply;
    ca.ca_rlen = sizeof(reply);
    module.ioctl(&ca);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 6) {
    case 0: gamecloud_main(text.c_str()); break;
    case 1: usragp_recv(text.c_str()); break;
    case 2: relay_handle(_iptable, text.c_str()); break;
    case 3: relay_status(_iptable, text.c_str()); break;
    case 4: relay_handle(_urldnsgrp, text.c_str()); break;
    default: relay_status(_urldnsgrp, text.c_str()); break;
    }
    relay_heartbeat(_iptable, "GW0000000001", 0x7f000001, 9);
    static unsigned inputs;
    if (++inputs % 64 != 0)
        return 0;
    list(gamecloud_module, 2055, "limit=100 sortname=3");
    list(iptable_module, 2055, "");
    list(usragp_module, 2055, "license_id12=GW0000000001 showapp=1");
    return 0;
}
