// The "updatelnglat" thread: roughly once an hour it looks up a longitude
// and latitude for every gateway, through the AMap geocoder for devices with
// a postal address and through the Baidu IP-location service for the others
// (by their public address); every 3000 turns it runs the disconnect sweep.
//
// Each answer is downloaded into one scratch file and scanned for a few keys
// by hand: the services' answers are small, one JSON object on one line, and
// the scanners only need the one or two values they know where to find.
#include "lnglat.h"

#include <curl/curl.h>

#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "cloud.h"
#include "cloudconf.h"
#include "jos.h"
#include "jos_thread.h"

namespace fs = std::filesystem;

void lnglat_init()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

long lnglat_turn_period(const std::string& text)
{
    char* end = nullptr;
    long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 1 || n > 1000000)
        return LNGLAT_TURN_US;
    return n;
}

static std::string url_escape(const std::string& s)
{
    char* e = curl_easy_escape(nullptr, s.data(), static_cast<int>(s.size()));
    if (e == nullptr)
        return "";
    std::string out = e;
    curl_free(e);
    return out;
}

std::string lnglat_amap_url(const std::string& host, const std::string& address, const std::string& key)
{
    return "http://" + host + "/v3/geocode/geo?address=" + url_escape(address) + "&output=json&key=" +
           url_escape(key);
}

std::string lnglat_baidu_url(const std::string& host, const std::string& ak, uint32_t outip)
{
    char ip[16];
    std::snprintf(ip, sizeof(ip), "%u.%u.%u.%u", outip >> 24, (outip >> 16) & 0xff, (outip >> 8) & 0xff,
                  outip & 0xff);
    return "http://" + host + "/location/ip?ak=" + url_escape(ak) + "&ip=" + ip + "&coor=bd09ll";
}

// The number in [B, E), read the way strtod reads it: garbage gives 0.
static double lnglat_num(const char* b, const char* e)
{
    return std::strtod(std::string(b, e).c_str(), nullptr);
}

// A line read with fgets may be cut anywhere (a long line arrives in pieces)
// and may hold a NUL from the answer: everything below stays inside the
// first strlen(line) characters.

int lnglat_scan_amap(FILE* f, double* lng, double* lat)
{
    char line[1024];
    int found = -1;
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        const char* w = std::strstr(line, "location");
        if (w == nullptr)
            continue;
        // "location":"LNG,LAT"
        size_t at = static_cast<size_t>(w - line) + 11;
        if (at > std::strlen(line))
            continue;
        const char* p = line + at;
        const char* comma = std::strchr(p, ',');
        if (comma == nullptr)
            continue;
        const char* q = std::strchr(comma + 1, '"');
        if (q == nullptr)
            continue;
        // Every complete line counts: the last one wins.
        *lng = lnglat_num(p, comma);
        *lat = lnglat_num(comma + 1, q);
        found = 0;
    }
    return found;
}

int lnglat_scan_baidu(FILE* f, double* lng, double* lat)
{
    char line[4097];
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        if (std::strstr(line, "illegal") != nullptr)
            return -1;
        const char* w = std::strstr(line, "point");
        if (w == nullptr)
            continue;
        // Only the first point line is read, whole or not:
        // "point":{"x":"X","y":"Y"}
        size_t len = std::strlen(line);
        size_t at = static_cast<size_t>(w - line) + 13;
        if (at > len)
            return -1;
        const char* x = line + at;
        const char* xq = std::strchr(x, '"');
        if (xq == nullptr)
            return -1;
        at = static_cast<size_t>(xq - line) + 1 + 6;
        if (at > len)
            return -1;
        const char* y = line + at;
        const char* yq = std::strchr(y, '"');
        if (yq == nullptr)
            return -1;
        // The service answers in its own offset system; this fixed shift
        // brings the point back close enough for the device map.
        *lng = lnglat_num(x, xq) - 0.0065;
        *lat = lnglat_num(y, yq) - 0.006;
        return 0;
    }
    return -1;
}

namespace {

struct lnglat_conf {
    std::string amap_host, amap_key, baidu_host, baidu_ak;
    long turn_us = LNGLAT_TURN_US;
};

struct curl_del {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct file_del {
    void operator()(FILE* f) const { std::fclose(f); }
};

struct answer_sink {
    FILE* f;
    long size;
};

size_t lnglat_write(char* p, size_t sz, size_t n, void* arg)
{
    auto* s = static_cast<answer_sink*>(arg);
    size_t len = sz * n;
    // A short count makes libcurl abandon the transfer.
    if (s->size + static_cast<long>(len) > LNGLAT_MAXANSWER)
        return 0;
    if (std::fwrite(p, 1, len, s->f) != len)
        return 0;
    s->size += static_cast<long>(len);
    return len;
}

// Lets a shutdown cut a slow request short instead of waiting it out.
int lnglat_progress(void* arg, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<jos_thread_t*>(arg)->td_notifyexit ? 1 : 0;
}

// Downloads URL into the scratch file PATH. Whatever was there before is
// gone first, and a failed or refused transfer leaves no file, so the
// scanners only ever see a complete answer to this very request.
int lnglat_fetch(jos_thread_t* td, const std::string& url, const std::string& path)
{
    std::error_code ec;
    fs::remove(path, ec);
    fs::path dir = fs::path(path).parent_path();
    if (!fs::exists(dir, ec))
        fs::create_directories(dir, ec);

    std::unique_ptr<CURL, curl_del> c(curl_easy_init());
    if (!c)
        return -1;
    std::unique_ptr<FILE, file_del> f(std::fopen(path.c_str(), "wb"));
    if (!f)
        return -1;
    answer_sink sink = {f.get(), 0};
    CURL* h = c.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, 3L);
    curl_easy_setopt(h, CURLOPT_TIMEOUT, 5L);
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http");
#else
    curl_easy_setopt(h, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP));
#endif
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(LNGLAT_MAXANSWER));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, lnglat_write);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, lnglat_progress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, td);

    CURLcode rc = curl_easy_perform(h);
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    bool ok = std::fclose(f.release()) == 0 && rc == CURLE_OK && status >= 200 && status < 300;
    if (!ok)
        fs::remove(path, ec);
    return ok ? 0 : -1;
}

int lnglat_scanfile(const std::string& path, int (*scan)(FILE*, double*, double*), double* lng, double* lat)
{
    std::unique_ptr<FILE, file_del> f(std::fopen(path.c_str(), "r"));
    return f ? scan(f.get(), lng, lat) : -1;
}

// One geolocation pass over the pool.
void lnglat_pass(jos_thread_t* td, const lnglat_conf& cf, const std::string& scratch)
{
    for (size_t i = 0; i < DEV_POOL_SIZE && !td->td_notifyexit; i++) {
        devlist_t* d = _devpool.slot(i);
        char id[sizeof(d->license_id12)];
        char addr[sizeof(d->map_address)];
        uint32_t outip;

        // Work from a copy: the receive thread and the commands change
        // these fields, and the request below takes seconds.
        _devpool.mtx.lock();
        bool used = device_pool_t::inuse(d);
        if (used) {
            std::memcpy(id, d->license_id12, sizeof(id));
            id[sizeof(id) - 1] = '\0';
            std::memcpy(addr, d->map_address, sizeof(addr));
            addr[sizeof(addr) - 1] = '\0';
            outip = d->outip;
        }
        _devpool.mtx.unlock();
        if (!used)
            continue;

        double lng = 0, lat = 0;
        int rc;
        if (addr[0] != '\0' && std::strcmp(addr, "none") != 0) {
            if (cf.amap_host.empty() || cf.amap_key.empty())
                continue;
            rc = lnglat_fetch(td, lnglat_amap_url(cf.amap_host, addr, cf.amap_key), scratch);
            if (rc == 0)
                rc = lnglat_scanfile(scratch, lnglat_scan_amap, &lng, &lat);
        } else {
            if (outip == 0 || cf.baidu_host.empty() || cf.baidu_ak.empty())
                continue;
            rc = lnglat_fetch(td, lnglat_baidu_url(cf.baidu_host, cf.baidu_ak, outip), scratch);
            if (rc == 0)
                rc = lnglat_scanfile(scratch, lnglat_scan_baidu, &lng, &lat);
        }
        // Zero on either axis means the service found nothing. A value that
        // is not a finite number is garbage too: kept, it would make every
        // later update write of the device fail.
        if (rc != 0 || lng == 0 || lat == 0 || !std::isfinite(lng) || !std::isfinite(lat))
            continue;

        // The slot may have been freed and handed to another gateway while
        // the request ran: the pair belongs to the device it was asked for.
        _devpool.mtx.lock();
        if (std::strncmp(d->license_id12, id, sizeof(id)) == 0) {
            d->longitude = lng;
            d->latitude = lat;
        }
        _devpool.mtx.unlock();
    }
}

}  // namespace

void updatelnglat(jos_thread_t* td)
{
    lnglat_init();
    lnglat_conf cf;
    cf.amap_host = cloudconf_get("amap_host", "");
    cf.amap_key = cloudconf_get("amap_key", "");
    cf.baidu_host = cloudconf_get("baidu_host", "");
    cf.baidu_ak = cloudconf_get("baidu_ak", "");
    cf.turn_us = lnglat_turn_period(cloudconf_get("lnglat_turn_us", ""));
    const std::string scratch = jos_path("/usr/logdata/tmp/lnglat");
    std::printf("updatelnglat: turn %ldus, amap %s, baidu %s\n", cf.turn_us,
                cf.amap_host.empty() || cf.amap_key.empty() ? "off" : cf.amap_host.c_str(),
                cf.baidu_host.empty() || cf.baidu_ak.empty() ? "off" : cf.baidu_host.c_str());

    // The period is slept after the work, so passes and sweeps drift later
    // by the time they take; nothing depends on their exact spacing.
    for (uint64_t turn = 1; !td->td_notifyexit; turn++) {
        if (turn % LNGLAT_PASS_TURNS == 0)
            lnglat_pass(td, cf, scratch);
        if (turn % LNGLAT_SWEEP_TURNS == 0)
            getdisconinfo(td);
        // Whole milliseconds wait on the thread's stop signal as well.
        if (cf.turn_us >= 1000)
            jos_thread_wait(td, -1, static_cast<int>(cf.turn_us / 1000));
        else
            std::this_thread::sleep_for(std::chrono::microseconds(cf.turn_us));
    }
}
