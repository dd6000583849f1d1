// The replay store of notification streams: what was sent, on disk, to be read again from a time on.
//
// A stream's events stand in files STREAM-NUMBER.events of one folder, each event as one record with its CRC-32C. The
// last file is appended to; past a size the next one begins, and past a number of files the oldest goes. A restart cuts
// a torn tail off the last file. The folder belongs to the operator too: files that are removed while the store is open
// are events that are gone, no error. Writes are not synced to the disk: an event that a power failure takes was told
// to all who listened.
#ifndef AGENT_SERVER_STREAM_STORE_H
#define AGENT_SERVER_STREAM_STORE_H

#include "agent/server/ds_error.h"
#include "agent/server/handle.h"

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct stream_event_t {
    int64_t time_us = 0; // since 1970 UTC, as the daemon has given it
    std::string document;
};

struct stream_file_t {
    uint64_t number = 0;
    uint64_t bytes = 0;
    uint64_t events = 0;
};

struct stream_log_t {
    std::deque<stream_file_t> files; // by number
    owned_fd tail;                   // the last file, once it was written to
    uint64_t next_number = 1;
};

struct stream_store_t {
    std::string dir; // empty: nothing is kept
    uint64_t file_bytes = 1 << 20;
    size_t most_files = 8; // of one stream
    std::map<std::string, stream_log_t> logs;
    std::set<std::string> disabled; // streams that are not to be kept
};

// Reads what the folder holds; a folder that does not exist is made with the first event. Reports of what was put right
// or could not be read, one line each.
void stream_store_open(stream_store_t &store, const std::string &dir, std::vector<std::string> &reports);

// From now on these streams are not kept. One that is switched off forgets its files, which stay where they are; one
// that is switched on again takes up what it finds.
void stream_store_set_disabled(stream_store_t &store, std::set<std::string> disabled);

// Can events of this stream be kept? Names make file names: letters, digits, '-', '_', at most 64.
[[nodiscard]] bool stream_store_keeps(const stream_store_t &store, const std::string &stream);

// On failure the store is as before, and the next append tries anew.
[[nodiscard]] bool stream_store_append(stream_store_t &store, const std::string &stream, const stream_event_t &event,
                                       ds_error_t &error);

// Events in the files that are still there.
[[nodiscard]] uint64_t stream_store_count(stream_store_t &store, const std::string &stream);

// Reads a stream's events up to the last one at the time of opening; keeps its place while files come and go.
struct stream_reader_t {
    std::string stream;
    owned_fd fd;
    uint64_t number = 0; // of the file
    uint64_t offset = 0;
    uint64_t last_number = 0; // where it ends
    uint64_t last_bytes = 0;
};
[[nodiscard]] stream_reader_t stream_reader_open(const stream_store_t &store, const std::string &stream);
// False at the end.
[[nodiscard]] bool stream_reader_next(const stream_store_t &store, stream_reader_t &reader, stream_event_t *event);

#endif
