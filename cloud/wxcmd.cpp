#include "wxcmd.h"

#include <cstdio>
#include <filesystem>
#include <string>

#include "jos.h"

// Written under the device's name, then renamed: the collector only takes
// names ending in ".ok", so it never sees a half-written notice.
void vantrel_notice(const char* word, const char* license_id12, const char* name, uint32_t time)
{
    // The identifier comes from the appliance and names a file: never let
    // it leave the spool directory.
    std::string id = license_id12;
    if (id.empty() || id == "." || id == ".." || id.find('/') != std::string::npos)
        return;
    std::string dir = jos_path("/usr/logdata/tmp/weixin");
    std::error_code ec;
    if (!std::filesystem::exists(dir, ec))
        std::filesystem::create_directories(dir, ec);
    std::string path = dir + "/" + license_id12;
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return;
    std::fprintf(f, "vantrel_type=%s\n", word);
    std::fprintf(f, "lic12=%s\n", license_id12);
    std::fprintf(f, "time=%u\n", time);
    std::fprintf(f, "name=%s", name);
    std::fclose(f);
    std::rename(path.c_str(), (path + ".ok").c_str());
}
