// Line-oriented configuration store (verify.conf) filled and saved through
// the modules' ioctl.
#pragma once

#include "jos.h"

const char* jos_cfg_root();
void jos_cfg_setdirty();
void jos_cfg_cleardirty();
int jos_cfg_isdirty();
// Reads verify.conf and offers each line to the modules; also used by tests.
void jos_cfg_load();
void cfg_timer(void*);

extern jos_module_t config_module;
