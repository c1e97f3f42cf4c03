// Named shortcuts for the modules' common commands, all in one table: the
// command each sends, its arguments, and how its reply reads.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Runs the shortcut named by argv[0]; returns the exit status, or -1 when
// argv[0] names no shortcut.
int cloudctl_shortcut(const std::string& sock, int argc, char** argv);
// Every shortcut with its arguments and what it does, module by module.
void cloudctl_shortcut_help(FILE* out);
std::vector<std::string> cloudctl_shortcut_names();
