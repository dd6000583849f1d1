#include "agent/server/crypto_keys.h"

#include "agent/server/handle.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>

static bool write_key(const std::string &path, const std::string &key)
{
    std::string fresh = path + ".new";
    owned_fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return fd.is_open() && write(fd.get(), key.data(), key.size()) == static_cast<ssize_t>(key.size()) &&
           fsync(fd.get()) == 0 && rename(fresh.c_str(), path.c_str()) == 0;
}

static bool make_key(const std::string &path, std::string *keys, std::string *error)
{
    std::string key(CRYPTO_KEY_SIZE, 0);
    if (getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size()) || !write_key(path, key)) {
        *error = "cannot make the key file " + path + ": " + strerror(errno) + "; check state-dir";
        return false;
    }
    *keys = std::move(key);
    return true;
}

bool crypto_keys_load(const std::string &state_dir, std::string *keys, std::string *error)
{
    std::string path = state_dir + "/crypto.key";
    owned_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.is_open() && errno == ENOENT)
        return make_key(path, keys, error);
    if (!fd.is_open()) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    std::string key(CRYPTO_KEY_SIZE + 1, 0);
    ssize_t n = read(fd.get(), key.data(), key.size());
    if (n != static_cast<ssize_t>(CRYPTO_KEY_SIZE)) {
        *error = path + ": not a key of " + std::to_string(CRYPTO_KEY_SIZE) + " bytes; restore it from a backup";
        return false;
    }
    key.resize(CRYPTO_KEY_SIZE);
    *keys = std::move(key);
    return true;
}
