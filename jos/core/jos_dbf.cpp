// dbf: the binary statistics reply, a run of 40-byte tagged values.
#include "jos_dbf.h"

#include "jos_cpu.h"

static const dbf_snapshot_t _dbfsnapshot_data[] = {
    {cpu_snapshot},
};

int dbf_ioctl(jos_cmdarg_t* ca)
{
    switch (ca->ca_cmd) {
    case JOS_CMD_CFGLINE:
        return 0;
    case JOS_CMD_STAT:
        ca->ca_retval = 0;
        ca->ca_pos = 0;
        for (const dbf_snapshot_t& s : _dbfsnapshot_data)
            s.snapshot(ca);
        ca->ca_rlen = ca->ca_pos;
        return 0;
    default:
        return -1;
    }
}

static int dbf_minit(jos_kernel_t*)
{
    return 0;
}

static void dbf_mfini(jos_kernel_t*) {}

jos_module_t dbf_module = {"dbf", 0x00000000, -1, dbf_minit, dbf_mfini, dbf_ioctl, nullptr};
