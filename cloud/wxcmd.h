// Disconnect notices for the WeChat relay, the disconnect sweep, and the
// relay of wxdeny commands to appliances.
#pragma once

#include <atomic>
#include <cstdint>

#include "jos.h"

// Drops the notice file WORD/LIC12/TIME/NAME into the spool as "<lic12>.ok".
void vantrel_notice(const char* word, const char* license_id12, const char* name, uint32_t time);

// Counts of the last relayed line. Answers are counted by the receive
// thread while the main thread sends and reads.
struct wxcmdinfo_t {
    char cmd[64];
    std::atomic<int> send;
    std::atomic<int> succ;
    std::atomic<int> fail;
};
extern wxcmdinfo_t _wci;

// Management command of the relay (argument text contains "wxcmd=1" or
// "wxcmdstatus=1").
int wxcmd_main(jos_cmdarg_t* ca);
// The relay file: at most this many bytes and lines.
constexpr long WXCMD_FILE_MAX = 1 << 20;
constexpr int WXCMD_LINES_MAX = 10000;
void wci_update(jos_cmdarg_t* ca, const char* line);
void wci_result(jos_cmdarg_t* ca);
// Counts an appliance's answer to a relayed command.
void wci_answer(const char* argstr);
