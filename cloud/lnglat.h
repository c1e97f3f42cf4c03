// Geolocation of gateways through the two map services: the answer scanners
// and request builders, kept apart from the thread so they can be tested.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// Turn period of the geolocation thread when /etc/cloud.conf has no valid
// lnglat_turn_us= line.
constexpr long LNGLAT_TURN_US = 100000;
// A pass every 36000 turns, the disconnect sweep every 3000.
constexpr uint64_t LNGLAT_PASS_TURNS = 36000;
constexpr uint64_t LNGLAT_SWEEP_TURNS = 3000;
// Answers larger than this are dropped unread.
constexpr long LNGLAT_MAXANSWER = 1L << 20;

// Global libcurl set-up; safe to call more than once. Call it before any
// worker thread starts.
void lnglat_init();

// The turn period from the text of lnglat_turn_us= (microseconds,
// 1..1000000); LNGLAT_TURN_US for anything else.
long lnglat_turn_period(const std::string& text);

// Request URLs. The address and keys are percent-encoded; OUTIP is in host
// order.
std::string lnglat_amap_url(const std::string& host, const std::string& address, const std::string& key);
std::string lnglat_baidu_url(const std::string& host, const std::string& ak, uint32_t outip);

// Scan one answer of the geocoding service (AMap) or of the IP-location
// service (Baidu). 0 with *LNG and *LAT set when a pair was found, -1
// otherwise. The Baidu pair comes back already shifted into the map's
// coordinate system.
int lnglat_scan_amap(FILE* f, double* lng, double* lat);
int lnglat_scan_baidu(FILE* f, double* lng, double* lat);
