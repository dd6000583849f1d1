// The journal file: its records, and appending to it.
#include "agent/server/journal.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

static constexpr char FILE_MAGIC[8] = { 'A', 'G', 'J', 'N', 'L', '1', '\n', '\0' };
static constexpr uint32_t RECORD_MAGIC = 0x4352cafe;
static constexpr uint32_t MAX_RECORD = 1u << 30;

struct record_header_t {
    uint32_t magic;
    uint32_t length; // of the payload
    uint32_t crc;    // of sequence and payload
    uint32_t reserved;
    uint64_t sequence; // 1 for the first record of a file
};
static_assert(sizeof(record_header_t) == 24);

// ---- checksum

static constexpr std::array<uint32_t, 256> make_crc_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0x82f63b78u : 0);
        table[i] = crc;
    }
    return table;
}
static constexpr auto crc_table = make_crc_table();

static uint32_t crc_add(uint32_t crc, std::string_view bytes)
{
    for (char c : bytes)
        crc = crc >> 8 ^ crc_table[(crc ^ static_cast<uint8_t>(c)) & 0xff];
    return crc;
}

uint32_t journal_crc(std::string_view bytes)
{
    return ~crc_add(~0u, bytes);
}

static uint32_t record_crc(uint64_t sequence, std::string_view payload)
{
    uint32_t crc = crc_add(~0u, { reinterpret_cast<const char *>(&sequence), sizeof sequence });
    return ~crc_add(crc, payload);
}

// ---- reading

// The payload of a good record at the offset; data() is null when there is none.
static std::string_view record_at(std::string_view bytes, uint64_t at, uint64_t &sequence)
{
    record_header_t header;
    if (bytes.size() < at + sizeof header)
        return {};
    memcpy(&header, bytes.data() + at, sizeof header);
    bool fits = header.magic == RECORD_MAGIC && header.length > 0 && header.length <= MAX_RECORD &&
                header.length <= bytes.size() - at - sizeof header;
    if (!fits)
        return {};
    std::string_view payload = bytes.substr(at + sizeof header, header.length);
    if (record_crc(header.sequence, payload) != header.crc)
        return {};
    sequence = header.sequence;
    return payload;
}

// A good record somewhere behind a bad one means that the bad one is no torn end.
static bool has_record_behind(std::string_view bytes, uint64_t at)
{
    std::string_view magic(reinterpret_cast<const char *>(&RECORD_MAGIC), sizeof RECORD_MAGIC);
    uint64_t sequence = 0;
    for (size_t next = bytes.find(magic, at + 1); next != std::string_view::npos; next = bytes.find(magic, next + 1))
        if (record_at(bytes, next, sequence).data())
            return true;
    return false;
}

bool journal_scan(std::string_view bytes, journal_content_t &content, uint64_t &size, uint64_t &bad)
{
    if (!bytes.starts_with(std::string_view(FILE_MAGIC, sizeof FILE_MAGIC))) {
        bad = 0;
        return false;
    }
    uint64_t at = sizeof FILE_MAGIC;
    for (uint64_t expected = 1; at < bytes.size(); expected++) {
        uint64_t sequence = 0;
        std::string_view payload = record_at(bytes, at, sequence);
        if (!payload.data() || sequence != expected) {
            bad = at;
            size = at;
            return !payload.data() && !has_record_behind(bytes, at);
        }
        content.records.emplace_back(payload);
        content.offsets.push_back(at);
        at += sizeof(record_header_t) + payload.size();
    }
    size = at;
    return true;
}

// ---- appending

static bool write_all(int fd, std::string_view bytes, uint64_t at)
{
    while (!bytes.empty()) {
        ssize_t wrote = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(wrote));
        at += static_cast<uint64_t>(wrote);
    }
    return true;
}

static bool fail_append(journal_t &journal, const char *what, ds_error_t &error)
{
    int why = errno;
    std::string text = journal_file(journal) + ": " + what + ": " + strerror(why) + "; the commit is not made";
    // What reached the disk is unknown after a failed sync: nothing more may be promised on top of it.
    if (ftruncate(journal.fd, static_cast<off_t>(journal.size)) != 0 || fdatasync(journal.fd) != 0)
        journal.failure = text;
    return ds_fail(error, CONFD_ERR_OS, text);
}

bool journal_append(journal_t &journal, std::string_view payload, ds_error_t &error)
{
    if (!journal.failure.empty())
        return ds_fail(error, CONFD_ERR_OS, "no commit until a snapshot can be written: " + journal.failure);
    if (payload.size() > MAX_RECORD)
        return ds_fail(error, CONFD_ERR_TOOBIG, "a commit of " + std::to_string(payload.size()) + " bytes is too big");
    record_header_t header = { RECORD_MAGIC, static_cast<uint32_t>(payload.size()), 0, 0, journal.sequence + 1 };
    header.crc = record_crc(header.sequence, payload);
    std::string bytes(reinterpret_cast<const char *>(&header), sizeof header);
    bytes.append(payload);
    if (!write_all(journal.fd, bytes, journal.size))
        return fail_append(journal, "cannot be written", error);
    if (journal.is_durable && fdatasync(journal.fd) != 0)
        return fail_append(journal, "cannot be brought to disk", error);
    journal.size += bytes.size();
    journal.sequence++;
    return true;
}

std::string_view journal_header()
{
    return { FILE_MAGIC, sizeof FILE_MAGIC };
}
