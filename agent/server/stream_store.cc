#include "agent/server/stream_store.h"

#include "agent/server/journal.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

static constexpr uint32_t RECORD_MAGIC = 0x31767365; // "esv1"
static constexpr uint32_t MAX_DOCUMENT = 1 << 20;
static constexpr size_t MAX_STREAM_NAME = 64;
static constexpr uint64_t MAX_NUMBER = INT64_MAX; // of a file that is taken up: the store goes on counting behind it
static constexpr std::string_view SUFFIX = ".events";

struct record_header_t {
    uint32_t magic;
    uint32_t length; // of the document, which follows
    int64_t time_us;
    uint32_t crc; // of length, time and document
    uint32_t zero;
};
static_assert(sizeof(record_header_t) == 24);

// ---- names

static bool is_storable_name(std::string_view name)
{
    auto is_good = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    };
    return !name.empty() && name.size() <= MAX_STREAM_NAME && std::ranges::all_of(name, is_good);
}

static std::string file_path(const stream_store_t &store, const std::string &stream, uint64_t number)
{
    return store.dir + "/" + stream + "-" + std::to_string(number) + std::string(SUFFIX);
}

// "corvane-12.events" into its parts; only names that this store would give.
static bool parse_file_name(std::string_view name, std::string *stream, uint64_t *number)
{
    if (!name.ends_with(SUFFIX))
        return false;
    name.remove_suffix(SUFFIX.size());
    size_t dash = name.rfind('-');
    if (dash == std::string_view::npos || !is_storable_name(name.substr(0, dash)))
        return false;
    std::string_view digits = name.substr(dash + 1);
    auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), *number);
    *stream = name.substr(0, dash);
    return failure == std::errc() && end == digits.data() + digits.size() && digits[0] != '0' && *number < MAX_NUMBER;
}

// ---- records

static uint32_t record_crc(const record_header_t &header, std::string_view document)
{
    std::string covered(reinterpret_cast<const char *>(&header.length), sizeof header.length + sizeof header.time_us);
    return journal_crc(covered.append(document));
}

static std::string make_record(const stream_event_t &event)
{
    record_header_t header{};
    header.magic = RECORD_MAGIC;
    header.length = static_cast<uint32_t>(event.document.size());
    header.time_us = event.time_us;
    header.crc = record_crc(header, event.document);
    return std::string(reinterpret_cast<const char *>(&header), sizeof header) + event.document;
}

// The bytes of the record at the offset; 0 when no whole record is there.
static uint64_t read_record(int fd, uint64_t offset, stream_event_t *event)
{
    record_header_t header{};
    auto at = static_cast<off_t>(offset);
    if (pread(fd, &header, sizeof header, at) != static_cast<ssize_t>(sizeof header) || header.magic != RECORD_MAGIC ||
        header.length > MAX_DOCUMENT)
        return 0;
    event->time_us = header.time_us;
    event->document.resize(header.length);
    ssize_t n = pread(fd, event->document.data(), header.length, at + static_cast<off_t>(sizeof header));
    bool is_whole = n == static_cast<ssize_t>(header.length) && header.crc == record_crc(header, event->document);
    return is_whole ? sizeof header + header.length : 0;
}

// ---- opening

static stream_file_t scan_file(int fd, uint64_t number)
{
    stream_file_t file = { number, 0, 0 };
    stream_event_t event;
    while (uint64_t size = read_record(fd, file.bytes, &event)) {
        file.bytes += size;
        file.events++;
    }
    return file;
}

static void add_file(stream_store_t &store, const std::string &stream, uint64_t number,
                     std::vector<std::string> &reports)
{
    std::string path = file_path(store, stream, number);
    owned_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct stat status {
    };
    if (!fd.is_open() || fstat(fd.get(), &status) != 0) {
        reports.push_back("replay store: " + path + ": " + strerror(errno));
        return;
    }
    stream_file_t file = scan_file(fd.get(), number);
    if (file.bytes < static_cast<uint64_t>(status.st_size)) {
        reports.push_back("replay store: " + path + " is cut after " + std::to_string(file.events) +
                          " events; what follows is torn");
        (void)ftruncate(fd.get(), static_cast<off_t>(file.bytes)); // else it is cut by its readers
    }
    stream_log_t &log = store.logs[stream];
    log.files.push_back(file);
    log.next_number = std::max(log.next_number, number + 1);
}

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};

// Takes up the files of one stream, or (empty name) of all that are kept.
static void scan_folder(stream_store_t &store, const std::string &only, std::vector<std::string> &reports)
{
    std::unique_ptr<DIR, dir_closer> folder(opendir(store.dir.c_str()));
    std::vector<std::pair<std::string, uint64_t>> found;
    while (const dirent *entry = folder ? readdir(folder.get()) : nullptr) {
        std::string stream;
        uint64_t number = 0;
        if (parse_file_name(entry->d_name, &stream, &number) && (only.empty() || only == stream) &&
            !store.disabled.contains(stream))
            found.emplace_back(stream, number);
    }
    std::ranges::sort(found);
    for (const auto &[stream, number] : found)
        add_file(store, stream, number, reports);
}

void stream_store_open(stream_store_t &store, const std::string &dir, std::vector<std::string> &reports)
{
    store.dir = dir;
    store.logs.clear();
    if (!dir.empty())
        scan_folder(store, {}, reports);
}

void stream_store_set_disabled(stream_store_t &store, std::set<std::string> disabled)
{
    std::swap(store.disabled, disabled); // now what was disabled before
    for (const std::string &stream : store.disabled)
        store.logs.erase(stream);
    std::vector<std::string> reports; // told when the agent starts
    for (const std::string &stream : disabled)
        if (!store.disabled.contains(stream) && !store.dir.empty())
            scan_folder(store, stream, reports);
}

bool stream_store_keeps(const stream_store_t &store, const std::string &stream)
{
    return !store.dir.empty() && is_storable_name(stream) && !store.disabled.contains(stream);
}

// ---- appending

// Files that somebody has removed are no longer of the log.
static void forget_removed(const stream_store_t &store, const std::string &stream, stream_log_t &log)
{
    std::erase_if(log.files, [&](const stream_file_t &file) {
        struct stat status {
        };
        return stat(file_path(store, stream, file.number).c_str(), &status) != 0 && errno == ENOENT;
    });
    struct stat status {
    };
    if (log.tail.is_open() && (fstat(log.tail.get(), &status) != 0 || status.st_nlink == 0))
        log.tail = owned_fd();
}

static bool fail_with_errno(ds_error_t &error, const std::string &path)
{
    return ds_fail(error, CONFD_ERR_OS, path + ": " + strerror(errno) + "; check the disk and the folder");
}

static bool begin_file(stream_store_t &store, const std::string &stream, stream_log_t &log, ds_error_t &error)
{
    if (mkdir(store.dir.c_str(), 0700) != 0 && errno != EEXIST)
        return fail_with_errno(error, store.dir);
    std::string path = file_path(store, stream, log.next_number);
    log.tail = owned_fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600));
    if (!log.tail.is_open()) {
        log.next_number += errno == EEXIST; // not one of ours to write to
        return fail_with_errno(error, path);
    }
    log.files.push_back({ log.next_number++, 0, 0 });
    while (log.files.size() > store.most_files) {
        (void)unlink(file_path(store, stream, log.files.front().number).c_str()); // gone already, or in the way later
        log.files.pop_front();
    }
    return true;
}

static bool open_tail(stream_store_t &store, const std::string &stream, stream_log_t &log, ds_error_t &error)
{
    forget_removed(store, stream, log);
    bool is_full = log.files.empty() || log.files.back().bytes >= store.file_bytes;
    if (log.tail.is_open() && !is_full)
        return true;
    if (is_full)
        return begin_file(store, stream, log, error);
    std::string path = file_path(store, stream, log.files.back().number);
    log.tail = owned_fd(open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
    return log.tail.is_open() || fail_with_errno(error, path);
}

bool stream_store_append(stream_store_t &store, const std::string &stream, const stream_event_t &event,
                         ds_error_t &error)
{
    if (event.document.size() > MAX_DOCUMENT)
        return ds_fail(error, CONFD_ERR_TOOBIG,
                       "an event of " + std::to_string(event.document.size()) + " bytes is not kept; " +
                           std::to_string(MAX_DOCUMENT) + " are the most");
    stream_log_t &log = store.logs[stream];
    if (!open_tail(store, stream, log, error))
        return false;
    stream_file_t &file = log.files.back();
    std::string record = make_record(event);
    ssize_t n = write(log.tail.get(), record.data(), record.size());
    if (n == static_cast<ssize_t>(record.size())) {
        file.bytes += record.size();
        file.events++;
        return true;
    }
    bool result = fail_with_errno(error, file_path(store, stream, file.number));
    if (n > 0 && ftruncate(log.tail.get(), static_cast<off_t>(file.bytes)) != 0)
        file.bytes = std::max(file.bytes, store.file_bytes); // its end is torn: the next event begins a new file
    return result;
}

uint64_t stream_store_count(stream_store_t &store, const std::string &stream)
{
    auto found = store.logs.find(stream);
    if (found == store.logs.end())
        return 0;
    forget_removed(store, stream, found->second);
    uint64_t count = 0;
    for (const stream_file_t &file : found->second.files)
        count += file.events;
    return count;
}

// ---- reading

stream_reader_t stream_reader_open(const stream_store_t &store, const std::string &stream)
{
    stream_reader_t reader;
    reader.stream = stream;
    auto found = store.logs.find(stream);
    if (found == store.logs.end() || found->second.files.empty())
        return reader;
    reader.last_number = found->second.files.back().number;
    reader.last_bytes = found->second.files.back().bytes;
    return reader;
}

// Opens the first file behind the reader's that is there; false at the end.
static bool open_next_file(const stream_store_t &store, stream_reader_t &reader)
{
    auto found = store.logs.find(reader.stream);
    if (found == store.logs.end())
        return false;
    for (const stream_file_t &file : found->second.files) {
        if (file.number <= reader.number || file.number > reader.last_number)
            continue;
        reader.number = file.number;
        reader.offset = 0;
        reader.fd =
            owned_fd(open(file_path(store, reader.stream, file.number).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (reader.fd.is_open())
            return true;
    }
    return false;
}

bool stream_reader_next(const stream_store_t &store, stream_reader_t &reader, stream_event_t *event)
{
    while (true) {
        bool is_at_end = reader.number == reader.last_number && reader.offset >= reader.last_bytes;
        uint64_t size = reader.fd.is_open() && !is_at_end ? read_record(reader.fd.get(), reader.offset, event) : 0;
        reader.offset += size;
        if (size > 0)
            return true;
        if (is_at_end || !open_next_file(store, reader))
            return false;
    }
}
