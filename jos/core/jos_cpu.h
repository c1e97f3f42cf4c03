// Processor count, binding, and the machine's CPU load.
#pragma once

#include "jos.h"

int jos_cpu_bind(int cpu);
int jos_cpu_exist(int n);
int jos_cpu_count();
int jos_cpu_hasht();
// One CPU timer run; also called directly by tests.
void cpu_timer(void*);
// Points the CPU timer at another stat file and restarts its call count.
void cpu_setstatfile(const char* path);
void cpu_snapshot(jos_cmdarg_t* ca);

extern std::atomic<int> _cpurate;
extern jos_module_t cpu_module;
