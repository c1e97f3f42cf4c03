// Global command table, dispatch, reply accumulation and the argument and
// value helpers every ioctl uses.
#pragma once

#include "jos.h"

int jos_cmd_register(int code, jos_cmdfn_t fn);
int jos_cmd_unregister(int code);
int jos_cmd_exec(jos_cmdarg_t* ca);

// Appends formatted reply text; see jos_cmds.cpp for the truncation rule.
int jos_cmd_printf(jos_cmdarg_t* ca, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

char* jos_cmd_nextarg(char* text, char** value, char** cursor);
void jos_cmd_tagval(char** cursor, char** tag, char** value);
int jos_cmd_isdigit(const char* text);
int jos_cmd_isdigitin(const char* text, long min, long max, long* number);
int jos_cmd_isstrin(const char* text, size_t min, size_t max, char* copy);
int jos_cmd_str2ip(const char* text, uint32_t* ip);
int jos_cmd_parseip(char* text, uint32_t* low, uint32_t* high);
int jos_cmd_macparse(const char* text, uint8_t mac[6]);
char* jos_cmd_trimline(char* text);
char* jos_cmd_fmtbytes(uint64_t value, char* buf, size_t size);
char* jos_cmd_fmtbps(uint64_t value, char* buf, size_t size);

// Code of the command being dispatched, 0 between commands.
extern int _jos_curcmd;
