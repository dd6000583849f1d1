// Running on disk: a snapshot and the commits since, in one directory.
//
// snapshot.<gen>.json is a JSON object {"snapshot": {generation, commits, bytes, crc32c}, "data": ...}; journal.<gen>
// is a header and a record for each commit, each with its length and CRC-32C (RFC 3720, appendix B.4). A commit is one
// append and one fdatasync. A new generation is written beside the old one and takes its place by a rename; the journal
// is made first, so whoever finds a snapshot finds its journal.
//
// Reading cuts off a last record that a crash has torn. Anything else that does not fit is damage: the caller gets an
// error with file, offset and remedy, and a copy of the file with ".damaged" behind its name.
#ifndef AGENT_SERVER_JOURNAL_H
#define AGENT_SERVER_JOURNAL_H

#include "agent/server/ds_error.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct journal_t {
    std::string dir; // empty: nothing is kept
    int dir_fd = -1; // owned, holds the lock of the directory
    int fd = -1;     // owned
    uint64_t generation = 0;
    uint64_t size = 0;     // good bytes of the file
    uint64_t sequence = 0; // records in the file
    uint64_t commits = 0;  // of all time, before the file
    bool is_durable = true;
    std::string failure; // why nothing can be appended any more; empty: it can

    journal_t() = default;
    journal_t(const journal_t &) = delete;
    journal_t &operator=(const journal_t &) = delete;
    ~journal_t();
};

struct journal_content_t {
    std::string snapshot;             // the data of the snapshot, JSON; "{}" at the very first
    std::vector<std::string> records; // payloads
    std::vector<uint64_t> offsets;    // of the records in the file, for errors
};

// Opens the directory (which is made when it is not there) and reads what it holds. One agent at a time.
[[nodiscard]] bool journal_open(journal_t &journal, const std::string &dir, bool is_durable, journal_content_t &content,
                                std::vector<std::string> &reports, ds_error_t &error);

// The file in use, for errors about its content.
[[nodiscard]] std::string journal_file(const journal_t &journal);

// Keeps a copy of the journal as damaged, and says what to do about a record that does not fit.
[[nodiscard]] bool journal_refuse(const journal_t &journal, uint64_t offset, const std::string &why, ds_error_t &error);

// On failure the file is as before; when even that cannot be had, all further appends fail until a snapshot succeeds.
[[nodiscard]] bool journal_append(journal_t &journal, std::string_view payload, ds_error_t &error);

// Starts the next generation with this JSON object as its data.
[[nodiscard]] bool journal_snapshot(journal_t &journal, std::string_view json, ds_error_t &error);

// What an empty journal file holds.
[[nodiscard]] std::string_view journal_header();

// CRC-32C of the bytes.
[[nodiscard]] uint32_t journal_crc(std::string_view bytes);

// Takes the records out of a journal file's bytes. size is how many bytes hold good records; false when there is damage
// that is no torn end, at *bad.
[[nodiscard]] bool journal_scan(std::string_view bytes, journal_content_t &content, uint64_t &size, uint64_t &bad);

#endif
