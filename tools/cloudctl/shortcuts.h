// Named shortcuts for the gateway registry's common commands.
#pragma once

#include <string>

// Runs the shortcut named by argv[0]; returns the exit status, or -1 when
// argv[0] names no shortcut.
int cloudctl_shortcut(const std::string& sock, int argc, char** argv);
void cloudctl_shortcut_usage();
