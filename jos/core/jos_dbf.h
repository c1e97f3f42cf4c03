// Binary statistics snapshot of the dbf module.
#pragma once

#include "jos.h"

struct jos_dbftag_t {
    union {
        char name[32];
        uint32_t words[8];
    };
};

struct jos_dbfval_t {
    jos_dbftag_t tag;
    int64_t val;
};
static_assert(sizeof(jos_dbfval_t) == 40);
static_assert(offsetof(jos_dbfval_t, val) == 32);

struct dbf_snapshot_t {
    void (*snapshot)(jos_cmdarg_t*);
};

int dbf_ioctl(jos_cmdarg_t* ca);

extern jos_module_t dbf_module;
