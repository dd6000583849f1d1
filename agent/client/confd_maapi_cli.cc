// MAAPI sockets: what is said to people, files that are loaded, and the keys of the encrypted types.
#include "agent/client/confd_internal.h"
#include "agent/client/confd_maapi.h"
#include "agent/wire/crypto.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>

static constexpr wire_kind_t MAAPI = WIRE_KIND_MAAPI;
static constexpr uint8_t FORMAT_XML = 1; // of WIRE_MAAPI_LOAD

int maapi_prio_message(int sock, const char *to, const char *message)
{
    wire_writer_t request;
    request.text(to);
    request.text(message);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_PRIO_MESSAGE, request);
}

int maapi_cli_printf(int sock, int usid, const char *fmt, ...)
{
    char *text = nullptr;
    va_list args;
    va_start(args, fmt);
    int size = vasprintf(&text, fmt, args);
    va_end(args);
    if (size < 0)
        return confd_fail(CONFD_ERR_MALLOC, "a text for session %d", usid);
    wire_writer_t request;
    request.u32(static_cast<uint32_t>(usid));
    request.text({ text, static_cast<size_t>(size) });
    free(text);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_CLI_WRITE, request);
}

// ---- files

struct file_closer_t {
    void operator()(FILE *file) const { (void)fclose(file); } // only read from
};

// CONFD_ERR with the file's name when it cannot be read.
static int read_file(const char *name, std::string *text)
{
    std::unique_ptr<FILE, file_closer_t> file(fopen(name, "re"));
    if (file == nullptr)
        return confd_fail(CONFD_ERR_OS, "cannot open %s: %s", name, strerror(errno));
    char bytes[16 << 10];
    size_t n;
    while ((n = fread(bytes, 1, sizeof bytes, file.get())) > 0) {
        text->append(bytes, n);
        if (text->size() > WIRE_MAX_FRAME)
            return confd_fail(CONFD_ERR_TOOBIG, "%s is larger than %u bytes", name, WIRE_MAX_FRAME);
    }
    return ferror(file.get()) == 0 ? CONFD_OK : confd_fail(CONFD_ERR_OS, "cannot read %s: %s", name, strerror(errno));
}

int maapi_load_config(int sock, int th, int flags, const char *filename)
{
    if ((flags & MAAPI_CONFIG_XML) == 0 || (flags & ~(MAAPI_CONFIG_XML | MAAPI_CONFIG_MERGE)) != 0)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "flags %#x: only XML can be loaded, and only merged", flags);
    std::string text;
    if (int result = read_file(filename, &text); result != CONFD_OK)
        return result;
    wire_writer_t request;
    request.u32(static_cast<uint32_t>(th));
    request.u8(FORMAT_XML);
    request.text(text);
    return confd_ask_nothing(sock, MAAPI, WIRE_MAAPI_LOAD, request);
}

// ---- keys

struct crypto_keys_t {
    std::mutex mutex;
    std::string keys;
};

static crypto_keys_t &crypto_keys()
{
    static crypto_keys_t &only = *new crypto_keys_t;
    return only;
}

int maapi_install_crypto_keys(int sock)
{
    std::string reply;
    if (int result = confd_io_request(sock, MAAPI, WIRE_MAAPI_INSTALL_CRYPTO_KEYS, {}, &reply); result != CONFD_OK)
        return result;
    wire_reader_t in(reply);
    std::string_view keys = in.text();
    if (!in.finished())
        return confd_fail_malformed(WIRE_MAAPI_INSTALL_CRYPTO_KEYS);
    std::lock_guard guard(crypto_keys().mutex);
    crypto_keys().keys = keys;
    return CONFD_OK;
}

// Clear text may hold any byte; users get it with a NUL behind it. It is shorter than its cipher text.
int confd_decrypt(const char *ciphertext, int len, char *output)
{
    std::string keys;
    {
        std::lock_guard guard(crypto_keys().mutex);
        keys = crypto_keys().keys;
    }
    if (keys.empty())
        return confd_fail(CONFD_ERR_NOEXISTS, "maapi_install_crypto_keys has fetched no keys");
    std::string clear;
    if (len < 0 || !wire_decrypt(keys, { ciphertext, static_cast<size_t>(len) }, clear) ||
        clear.size() > static_cast<size_t>(len))
        return confd_fail(CONFD_ERR_BADTYPE, "not an encrypted text, or encrypted with other keys");
    memcpy(output, clear.data(), clear.size());
    output[clear.size()] = 0;
    return static_cast<int>(clear.size());
}
