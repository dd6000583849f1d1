// The key of the encrypted leaf types: 32 random bytes for AES-256, made at the first start, kept in the state
// directory with mode 0600 and handed out to clients that ask (WIRE_MAAPI_INSTALL_CRYPTO_KEYS).
#ifndef AGENT_SERVER_CRYPTO_KEYS_H
#define AGENT_SERVER_CRYPTO_KEYS_H

#include <string>

inline constexpr size_t CRYPTO_KEY_SIZE = 32;

// Reads the key of the directory, or makes it. A key file of another size is an error and left alone: what was
// encrypted with it would be lost.
[[nodiscard]] bool crypto_keys_load(const std::string &state_dir, std::string *keys, std::string *error);

#endif
