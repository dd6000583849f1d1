// AES-128-CFB by OpenSSL for the texts of encrypted leaves.
#include "agent/wire/crypto.h"

#include <memory>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <utility>

static constexpr size_t KEY_SIZE = 16;
static constexpr size_t IV_SIZE = 16;
static constexpr size_t CHECK_SIZE = 4;

struct cipher_deleter {
    void operator()(EVP_CIPHER_CTX *cipher) const { EVP_CIPHER_CTX_free(cipher); }
};
using cipher_ptr = std::unique_ptr<EVP_CIPHER_CTX, cipher_deleter>;

static const unsigned char *bytes_of(std::string_view text)
{
    return reinterpret_cast<const unsigned char *>(text.data());
}

static unsigned char *bytes_of(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

static bool run_cipher(std::string_view keys, std::string_view iv, std::string_view in, bool is_encryption,
                       std::string &out)
{
    cipher_ptr cipher(EVP_CIPHER_CTX_new());
    std::string made(in.size(), 0); // CFB keeps the length
    int size = 0;
    bool is_good =
        cipher &&
        EVP_CipherInit_ex(cipher.get(), EVP_aes_128_cfb128(), nullptr, bytes_of(keys), bytes_of(iv),
                          is_encryption ? 1 : 0) == 1 &&
        EVP_CipherUpdate(cipher.get(), bytes_of(made), &size, bytes_of(in), static_cast<int>(in.size())) == 1 &&
        static_cast<size_t>(size) == in.size();
    if (is_good)
        out = std::move(made);
    return is_good;
}

// The check value; empty when there is no SHA-256.
static std::string check_of(std::string_view clear)
{
    std::string digest(EVP_MAX_MD_SIZE, 0);
    if (EVP_Digest(clear.data(), clear.size(), bytes_of(digest), nullptr, EVP_sha256(), nullptr) != 1)
        return {};
    digest.resize(CHECK_SIZE);
    return digest;
}

static std::string to_base64(std::string_view bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, 0); // and the NUL that it writes
    int size = EVP_EncodeBlock(bytes_of(text), bytes_of(bytes), static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

// Only the one text that to_base64 makes of the bytes is taken.
static bool from_base64(std::string_view text, std::string &bytes)
{
    std::string made(text.size() / 4 * 3 + 3, 0);
    int size = EVP_DecodeBlock(bytes_of(made), bytes_of(text), static_cast<int>(text.size()));
    size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    if (size < 0 || static_cast<size_t>(size) < padding)
        return false;
    made.resize(static_cast<size_t>(size) - padding);
    if (to_base64(made) != text)
        return false;
    bytes = std::move(made);
    return true;
}

bool wire_encrypt(std::string_view keys, std::string_view clear, std::string &text)
{
    std::string iv(IV_SIZE, 0);
    std::string check = check_of(clear);
    std::string encrypted;
    if (keys.size() < KEY_SIZE || clear.size() > WIRE_CRYPTO_MAX / 2 || check.empty() ||
        RAND_bytes(bytes_of(iv), IV_SIZE) != 1 || !run_cipher(keys, iv, check.append(clear), true, encrypted))
        return false;
    text = std::string(WIRE_CRYPTO_MARK) + to_base64(iv + encrypted);
    return true;
}

bool wire_decrypt(std::string_view keys, std::string_view text, std::string &clear)
{
    std::string bytes;
    if (keys.size() < KEY_SIZE || text.size() > WIRE_CRYPTO_MAX || !text.starts_with(WIRE_CRYPTO_MARK) ||
        !from_base64(text.substr(WIRE_CRYPTO_MARK.size()), bytes) || bytes.size() < IV_SIZE + CHECK_SIZE)
        return false;
    std::string_view all(bytes);
    std::string plain;
    if (!run_cipher(keys, all.substr(0, IV_SIZE), all.substr(IV_SIZE), false, plain) ||
        check_of(std::string_view(plain).substr(CHECK_SIZE)) != plain.substr(0, CHECK_SIZE))
        return false;
    clear = plain.substr(CHECK_SIZE);
    return true;
}
