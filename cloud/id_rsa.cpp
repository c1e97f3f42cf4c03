// The public keys appliances log in with to open their tunnels. Keys sent
// in "RSA=" datagrams are collected, once each, in authorized_keys_tmp;
// the live authorized_keys is a copy of that collection, made when an
// operator maps ports to an appliance or a backup needs it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>

#include "ipe_string.h"
#include "sshport.h"

namespace {

rsa_pool_t* _rsa_pool;
// The receive thread collects, commands and the backup thread publish.
std::mutex _rsa_mtx;

std::string ssh_dir()
{
    return jos_path("/root/.ssh");
}
std::string keys_live()
{
    return jos_path("/root/.ssh/authorized_keys");
}
std::string keys_tmp()
{
    return jos_path("/root/.ssh/authorized_keys_tmp");
}

// Copies the collection to the live file under a temporary name, then
// renames it: sshd never reads a half-written file. Callers hold _rsa_mtx.
int keys_copy()
{
    const std::string dst = keys_live();
    const std::string part = dst + ".new";
    int in = open(keys_tmp().c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return -1;
    int out = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool ok = out >= 0;
    char buf[4096];
    for (ssize_t n; ok && (n = read(in, buf, sizeof(buf))) > 0;)
        ok = write(out, buf, static_cast<size_t>(n)) == n;
    close(in);
    if (out >= 0) {
        ok = fchmod(out, 0600) == 0 && ok;
        ok = close(out) == 0 && ok;
    }
    if (!ok || rename(part.c_str(), dst.c_str()) != 0) {
        unlink(part.c_str());
        return -1;
    }
    return 0;
}

}  // namespace

bool rsa_key_valid(const char* key)
{
    static const char* const types[] = {"ssh-rsa", "ssh-dss", "ssh-ed25519", "ecdsa-sha2-nistp256",
                                        "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521",
                                        "sk-ssh-ed25519@openssh.com", "sk-ecdsa-sha2-nistp256@openssh.com"};
    // "TYPE BASE64 [comment]": the line must start with a known type, so
    // that no option (command=, from=, ...) can precede it.
    size_t tlen = std::strcspn(key, " ");
    bool known = false;
    for (const char* t : types)
        known = known || (std::strlen(t) == tlen && std::strncmp(key, t, tlen) == 0);
    if (!known || key[tlen] != ' ')
        return false;
    const char* b64 = key + tlen + 1;
    size_t blen = std::strspn(b64, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=");
    if (blen < 16 || (b64[blen] != '\0' && b64[blen] != ' '))
        return false;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); *p != '\0'; p++)
        if (*p < 0x20 || *p == 0x7f)
            return false;
    return true;
}

int rsa_load()
{
    std::lock_guard lk(_rsa_mtx);
    if (_rsa_pool == nullptr)
        return -1;
    FILE* f = std::fopen(keys_tmp().c_str(), "re");
    if (f == nullptr)
        return 0;
    char line[1024];
    size_t stored = 0;
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        line[std::strcspn(line, "\r\n")] = '\0';
        if (stored < RSA_POOL_SIZE) {
            ipe_fieldcpy(_rsa_pool[stored].rsa, line);
            _rsa_pool[stored].count = 1;
            stored++;
        }
    }
    std::fclose(f);
    // A full collection starts afresh.
    if (stored >= RSA_POOL_SIZE) {
        unlink(keys_tmp().c_str());
        std::memset(_rsa_pool, 0, sizeof(rsa_pool_t) * RSA_POOL_SIZE);
    }
    return 0;
}

int rsa_init()
{
    const std::string dir = ssh_dir();
    std::error_code ec;
    if (!std::filesystem::exists(dir, ec)) {
        std::filesystem::create_directories(std::filesystem::path(dir).parent_path(), ec);
        // The mode is the decimal number 777 (octal 1411), as it always was.
        mkdir(dir.c_str(), 777);
    }
    if (std::filesystem::exists(keys_live(), ec) && rename(keys_live().c_str(), keys_tmp().c_str()) != 0) {
        std::printf("%s: rename error\n", "rsa_init");
        return -1;
    }
    {
        std::lock_guard lk(_rsa_mtx);
        if (_rsa_pool == nullptr)
            _rsa_pool = static_cast<rsa_pool_t*>(std::calloc(RSA_POOL_SIZE, sizeof(rsa_pool_t)));
        if (_rsa_pool == nullptr) {
            std::puts("malloc error");
            return -1;
        }
        std::memset(_rsa_pool, 0, sizeof(rsa_pool_t) * RSA_POOL_SIZE);
    }
    return rsa_load();
}

void rsa_recv(const char* dgram, size_t len)
{
    if (len < 8)
        return;
    const char* text;
    if (std::memcmp(dgram, "VTR", 3) == 0) {
        text = dgram + 8;
    } else if (std::memcmp(dgram, "FRB", 4) == 0 || std::memcmp(dgram, "LOG", 3) == 0) {
        text = std::strchr(dgram + 8, '=');
        if (text == nullptr)
            return;
        text++;
    } else {
        return;
    }
    char key[RSA_KEY_MAX];
    ipe_fieldcpy(key, text);
    // A key is one line: a line break may only end it.
    size_t end = std::strcspn(key, "\r\n");
    if (key[end + std::strspn(key + end, "\r\n")] != '\0')
        return;
    key[end] = '\0';
    if (!rsa_key_valid(key))
        return;

    std::lock_guard lk(_rsa_mtx);
    if (_rsa_pool == nullptr)
        return;
    rsa_pool_t* free_entry = nullptr;
    for (size_t i = 0; i < RSA_POOL_SIZE; i++) {
        rsa_pool_t& e = _rsa_pool[i];
        if (e.count != 0 && std::strcmp(e.rsa, key) == 0) {
            e.count++;
            return;
        }
        if (e.count == 0 && free_entry == nullptr)
            free_entry = &e;
    }
    if (free_entry != nullptr) {
        std::memcpy(free_entry->rsa, key, sizeof(key));
        free_entry->count = 1;
    }
    int fd = open(keys_tmp().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    std::string line = std::string(key) + "\n";
    ssize_t w = write(fd, line.data(), line.size());
    (void)w;
    close(fd);
}

int rsa_rename()
{
    std::lock_guard lk(_rsa_mtx);
    return keys_copy();
}

void rsa_publish_if_missing()
{
    std::lock_guard lk(_rsa_mtx);
    std::error_code ec;
    if (!std::filesystem::exists(keys_live(), ec))
        keys_copy();
}
