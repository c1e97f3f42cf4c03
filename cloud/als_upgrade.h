// Upgrade tasks for cache appliances (als_upgrade.cpp).
#pragma once

#include "jos.h"

// A "frb_upgrade" report of a cache appliance: the words after the tag
// (changed in place).
void frelbox_upgrade_log(char* text);

// Tasks by state (new, running, done) and their appliances by state
// (waiting, sent, succeeded, failed).
struct alsup_counts_t {
    int tasks[3];
    int orders[4];
};
alsup_counts_t alsup_counts();

extern jos_module_t als_upgrade_module;
