// Shared pieces of the fuzz targets: a private root for every fixed path,
// the registry brought back to a known state before each input, the
// registry's invariants, input chunks, and oracles that can be waived by
// name while a fault they found is being fixed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Creates a private directory under $TMPDIR (default /tmp), makes it the
// daemon's root (removed again at exit) and returns its path.
const std::string& make_root();

// Writes TEXT to the daemon path ABS (resolved under the root), creating
// its directory. Returns false when the file cannot be written.
bool put_file(const char* abs, std::string_view text);
std::string get_file(const char* abs);

// The pieces of DATA between separators (one piece when there is none).
constexpr std::string_view SEP = "|NEXT|";
std::vector<std::string_view> split(std::string_view data, std::string_view sep = SEP);
std::vector<std::string> lines(std::string_view text);

// Fills the database writer's queue (the writer never runs here), so that
// every statement handed over afterwards is formatted and then dropped, as
// during a long database outage. Otherwise each input would leave its
// statements queued, and libFuzzer would take every input for a leak and
// scan the heap after it.
void fill_writer_queue();

// Sets the daemon's clock to T (whatever steps commands made before).
void set_clock(uint32_t t);

// Empties the device pool and resets the registry's globals; NOTIFY turns
// the disconnect notices (files under the root) on.
void registry_reset(bool notify);

// One datagram handed over as the receive loop does: copied into a zeroed
// buffer of CLOUD_MAXDGRAM + 1 bytes, cut to CLOUD_MAXDGRAM, NUL after it.
void feed_dgram(std::string_view bytes, uint32_t ip, uint16_t port);

// A well-formed status report of device ID.
std::string status_report(uint16_t type, const char* id, const char* version, const char* name,
                          const char* grpname, uint32_t users, uint32_t max_users);
std::string lnglat_report(const char* id, double lng, double lat);
std::string key_report(const char* id, const char* md5);
std::string text_dgram(std::string_view text);

// Every device in use is reachable through its chain under its own key,
// the count matches, and every text field is terminated inside its size.
void check_registry();

// False when NAME is listed in CLOUD_FUZZ_KNOWN (comma-separated): the
// oracle of that name is then not enforced.
bool enforced(const char* name);
[[noreturn]] void fail(const char* oracle, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace fuzz
