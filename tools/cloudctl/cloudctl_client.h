// Client side of the management socket: one command per connection, the
// argument and reply texts in a private System V segment made per call.
#pragma once

#include <string>

#include "cloudctl_rows.h"
#include "jos.h"

struct cloudctl_result {
    int rc = -1;            // 0: a record came back; -1: transport failure
    std::string error;      // transport failure text
    jos_cmdarg_t rec{};     // the record as answered
    std::string data;       // ca_rlen bytes of the reply area (errno 0 only)

    // The reply as text: the data up to its first NUL.
    std::string text() const { return std::string(data.c_str()); }
};

// Socket path of a daemon running under ROOT (empty: the real path).
std::string cloudctl_sockpath(const std::string& root);

// Sends a command to MODULE (empty or null for a global command).
cloudctl_result cloudctl_command(const std::string& sock, const char* module, int code, const std::string& args,
                                 size_t capacity = 1 << 20);

// Sends REC as given, with ARGS placed in a fresh segment of CAPACITY bytes
// when make_segment is set (ca_shmid, ca_alen and ca_rlen are then filled in
// unless already non-zero). Lets tests send malformed records.
cloudctl_result cloudctl_send(const std::string& sock, jos_cmdarg_t rec, const std::string& args, size_t capacity,
                              bool make_segment);
