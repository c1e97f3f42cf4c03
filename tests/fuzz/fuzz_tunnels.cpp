// Key datagrams and tunnel reports of the appliances: the first byte picks
// the kind (0: "RSA=" body of a cache appliance, 1: of a log server, 2: a
// key datagram of a gateway, 3: a tunnel report, then its close). Oracle:
// every line of the collecting file is one complete key of a known type.
// The store starts afresh every 512 inputs: a full one (4000 keys, the file
// rewritten on each new key and read back for the oracle) would make every
// input slow.
#include <cstdint>
#include <cstdio>
#include <string>

#include "cloud.h"
#include "fuzz_common.h"
#include "sshport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::make_root();
    fuzz::fill_writer_queue();
    if (cloud_devpool_init() != 0 || rsa_init() != 0)
        __builtin_trap();
    sshport_module.init(nullptr);  // the pool; its thread is not started here
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS, "GW0000000001", "V5.1", "gw", "", 1, 100), 0x0a000001, 40000);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static unsigned inputs;
    if (++inputs % 512 == 0) {
        std::remove(jos_path("/root/.ssh/authorized_keys_tmp").c_str());
        std::remove(jos_path("/root/.ssh/authorized_keys").c_str());
        if (rsa_init() != 0)
            __builtin_trap();
    }
    std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] & 3) {
    case 0:
    case 1:
    case 2: {
        static const char* const magic[] = {"FRB", "LOG", "VTR"};
        std::string d(magic[data[0] & 3], 3);
        d += std::string("\0\x40\x9c\0\0", 5) + body;
        d.resize(d.size() + 1);  // the NUL after the received bytes
        rsa_recv(d.data(), d.size() - 1);
        for (const std::string& line : fuzz::lines(fuzz::get_file("/root/.ssh/authorized_keys_tmp")))
            if (!line.empty() && !rsa_key_valid(line.c_str()))
                fuzz::fail("keys", "collected a line that is no key: %.200s", line.c_str());
        break;
    }
    default:
        sshport_handle(body.c_str());
        sshport_remove(body.c_str());
        break;
    }
    return 0;
}
