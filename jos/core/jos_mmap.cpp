// Physical memory mappings through /dev/mem, opened once and kept open.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "jos.h"

static int _mem_fd = -1;

static void* jos_mapmem(off_t phys, size_t len, int prot, const char* who)
{
    if (_mem_fd < 0) {
        _mem_fd = open("/dev/mem", O_RDWR);
        if (_mem_fd < 0) {
            if (who != nullptr)
                std::printf("[%s]open: %s\n", who, std::strerror(errno));
            else
                std::printf("open: %s\n", std::strerror(errno));
            return nullptr;
        }
    }
    void* p = mmap(nullptr, len, prot, MAP_SHARED, _mem_fd, phys);
    if (p == MAP_FAILED) {
        if (who != nullptr)
            std::printf("[%s]mmap: %s\n", who, std::strerror(errno));
        else
            std::printf("mmap: %s\n", std::strerror(errno));
        return nullptr;
    }
    return p;
}

void* jos_mmap(long phys, size_t len)
{
    return jos_mapmem(phys, len, PROT_READ | PROT_WRITE, nullptr);
}

void* jos_mmapro(long phys, size_t len)
{
    return jos_mapmem(phys, len, PROT_READ, "jos_mmapro");
}
