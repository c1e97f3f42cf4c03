// Delayed release: blocks handed over with a delay are freed by a one-second
// timer once their time has come.
#include "jos_delaymb.h"

#include <cstdlib>

#include "jos_timer.h"

static jos_dmbhdr_t* _dmb_head;
static jos_timer_t _dmb_tmr = {0, 1000, dmb_timer, "dmbtimer", nullptr};

void jos_dmbdrop(jos_dmbhdr_t* blk, uint32_t seconds)
{
    blk->expire = static_cast<uint32_t>(_jos_timesec.load()) + seconds;
    blk->next = _dmb_head;
    _dmb_head = blk;
}

void dmb_timer(void*)
{
    uint32_t now = static_cast<uint32_t>(_jos_timesec.load());
    for (jos_dmbhdr_t** pp = &_dmb_head; *pp != nullptr;) {
        jos_dmbhdr_t* b = *pp;
        if (b->expire <= now) {
            *pp = b->next;
            std::free(b);
        } else {
            pp = &b->next;
        }
    }
}

static int dmb_minit(jos_kernel_t*)
{
    _dmb_head = nullptr;
    timer_load(&_dmb_tmr);
    return 0;
}

// Blocks still listed at exit are not released.
static void dmb_mfini(jos_kernel_t*) {}

jos_module_t delaymb_module = {"delaymb", 0x0000000a, -1, dmb_minit, dmb_mfini, nullptr, nullptr};
