// Upgrade tasks for cache appliances (als_upgrade.cpp).
#pragma once

#include "jos.h"

// A "frb_upgrade" report of a cache appliance: the words after the tag
// (changed in place).
void frelbox_upgrade_log(char* text);

extern jos_module_t als_upgrade_module;
