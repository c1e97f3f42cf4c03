// Disconnect notices for the WeChat relay, and the relay of wxdeny commands.
#pragma once

#include <cstdint>

// Drops the notice file WORD/LIC12/TIME/NAME into the spool as "<lic12>.ok".
void vantrel_notice(const char* word, const char* license_id12, const char* name, uint32_t time);
