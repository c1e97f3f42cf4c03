// Delayed release of memory blocks.
#pragma once

#include "jos.h"

struct jos_dmbhdr_t {
    jos_dmbhdr_t* next;
    uint32_t expire;  // seconds since the epoch after which it may be freed
};

void jos_dmbdrop(jos_dmbhdr_t* blk, uint32_t seconds);
void dmb_timer(void*);

extern jos_module_t delaymb_module;
