// Answers of the two map services, as the geolocation thread scans them
// from its scratch file: the first byte picks the scanner (even: geocoder,
// odd: IP location), the rest is the answer. The request builders take the
// same bytes as an address and a key.
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz_common.h"
#include "lnglat.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::make_root();
    lnglat_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    std::string answer(reinterpret_cast<const char*>(data) + 1, size - 1);
    FILE* f = fmemopen(answer.data(), answer.size(), "r");
    if (f == nullptr)
        return 0;
    double lng = 0, lat = 0;
    if (data[0] & 1)
        lnglat_scan_baidu(f, &lng, &lat);
    else
        lnglat_scan_amap(f, &lng, &lat);
    std::fclose(f);
    std::string url = lnglat_amap_url("127.0.0.1:8080", answer, answer.substr(0, 40));
    if (url.find_first_of(" \r\n\"'<>") != std::string::npos)
        fuzz::fail("lnglat", "request line holds a blank or a quote: %.200s", url.c_str());
    return 0;
}
