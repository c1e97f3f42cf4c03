// /etc/cloud.conf: "key=value" lines read at start-up.
#pragma once

#include <string>

// The value of the first line "KEY=value", or DEF when there is none.
std::string cloudconf_get(const char* key, const char* def);
int cloudconf_int(const char* key, int def);

// Runs a configured command line (split at blanks, no shell). Under a test
// root the command is only logged. Returns the exit status or -1.
int cloudconf_run(const char* who, const std::string& cmdline);
