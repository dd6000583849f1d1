// What agentd reads from its disk when it starts: the replay store's files, the journal and the snapshot. The first byte
// says which, and whether the bytes come with a checksum that is right: those stand for writers that were wrong.
//
// Whatever is there, opening ends with a store or with an error that says why; a store that has opened takes new data and
// opens again with it.
#include "agent/server/datastore.h"
#include "agent/server/journal.h"
#include "agent/server/stream_store.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace
{

void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "finding: %s\n", what);
    abort();
}

// In memory where the system has such a place; gone with the process.
struct scratch_t {
    std::string dir;
    scratch_t()
    {
        char name[] = "/dev/shm/fuzz-disk-XXXXXX";
        char other[] = "/tmp/fuzz-disk-XXXXXX";
        const char *made = mkdtemp(name);
        made = made ? made : mkdtemp(other);
        require(made != nullptr, "no folder");
        dir = made;
    }
    ~scratch_t() { clear(), rmdir(dir.c_str()); }
    void clear() const
    {
        std::error_code failure;
        for (const auto &entry : std::filesystem::directory_iterator(dir, failure))
            std::filesystem::remove_all(entry.path(), failure);
    }
};

const std::string &scratch_dir()
{
    static scratch_t scratch;
    scratch.clear();
    return scratch.dir;
}

void write_file(const std::string &path, std::string_view bytes)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "no file");
    close(fd);
}

// ---- the replay store

constexpr char STREAM[] = "conform";

uint64_t count_read(const stream_store_t &store)
{
    stream_reader_t reader = stream_reader_open(store, STREAM);
    stream_event_t event;
    uint64_t count = 0;
    while (stream_reader_next(store, reader, &event))
        require(++count < 1000000, "a file is read for ever");
    return count;
}

// The stream's files are there.
void open_stream(const std::string &dir)
{
    std::vector<std::string> reports;
    stream_store_t store;
    stream_store_open(store, dir, reports);
    uint64_t count = stream_store_count(store, STREAM);
    require(count_read(store) == count, "the reader does not find what the store has counted");
    ds_error_t error;
    stream_event_t event = { 1, "{}" };
    require(stream_store_append(store, STREAM, event, error), "nothing can be appended");
    stream_store_t again;
    reports.clear();
    stream_store_open(again, dir, reports);
    require(reports.empty() && count_read(again) == count + 1, "what was put right once is wrong again");
}

void read_stream_file(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    write_file(dir + "/conform-1.events", bytes);
    open_stream(dir);
}

// Good events, as many as the input has lines, and then the last line as it is.
void read_torn_stream(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    stream_store_t store;
    std::vector<std::string> reports;
    stream_store_open(store, dir, reports);
    ds_error_t error;
    for (size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
        stream_event_t event = { static_cast<int64_t>(end), std::string(bytes.substr(0, end)) };
        require(stream_store_append(store, STREAM, event, error), "nothing can be appended");
        bytes.remove_prefix(end + 1);
    }
    if (FILE *file = fopen((dir + "/conform-1.events").c_str(), "ab")) {
        (void)fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
    }
    open_stream(dir);
}

void read_stream_name(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > 200 ||
        bytes.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
        return;
    const std::string &dir = scratch_dir();
    std::string name = std::string(bytes) + ".events";
    write_file(dir + "/" + name, "");
    open_stream(dir);
}

// ---- running

datastore_ptr open_store(const std::string &dir, ds_error_t &error)
{
    datastore_options_t options;
    options.yang_dir = TEST_YANG_DIR;
    options.state_dir = dir;
    options.durable = false;
    std::vector<std::string> reports;
    datastore_ptr store = datastore_open(options, reports, error);
    require(store || !error.text.empty(), "a refusal without a reason");
    return store;
}

std::string shown(datastore_t &store)
{
    std::string text;
    ds_error_t error;
    require(read_show(store, {}, SHOW_CONFIG, {}, DOC_JSON, false, text, error), "what is there cannot be shown");
    return text;
}

void open_running(const std::string &dir)
{
    ds_error_t error;
    datastore_ptr store = open_store(dir, error);
    if (!store)
        return;
    std::string text = shown(*store);
    store.reset();
    store = open_store(dir, error);
    require(store && shown(*store) == text, "what opened once does not open again");
}

void read_journal_file(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    ds_error_t error;
    open_store(dir, error).reset();
    journal_t journal;
    journal_content_t content;
    std::vector<std::string> reports;
    require(journal_open(journal, dir, false, content, reports, error), "an empty journal does not open");
    std::string path = journal_file(journal);
    close(std::exchange(journal.dir_fd, -1));
    write_file(path, bytes);
    open_running(dir);
}

// Records, each behind a byte and 256 * the next that say its length, with their checksums.
void read_journal_records(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    ds_error_t error;
    {
        journal_t journal;
        journal_content_t content;
        std::vector<std::string> reports;
        require(journal_open(journal, dir, false, content, reports, error), "an empty journal does not open");
        while (bytes.size() > 2) {
            size_t length = static_cast<uint8_t>(bytes[0]) | static_cast<size_t>(static_cast<uint8_t>(bytes[1])) << 8;
            std::string_view record = bytes.substr(2, length);
            require(record.empty() || journal_append(journal, record, error), "nothing can be appended");
            bytes.remove_prefix(2 + record.size());
        }
    }
    open_running(dir);
}

void read_snapshot(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    ds_error_t error;
    {
        journal_t journal;
        journal_content_t content;
        std::vector<std::string> reports;
        require(journal_open(journal, dir, false, content, reports, error), "an empty journal does not open");
        require(journal_snapshot(journal, bytes, error), "no snapshot can be written");
    }
    open_running(dir);
}

void read_snapshot_file(std::string_view bytes)
{
    const std::string &dir = scratch_dir();
    write_file(dir + "/snapshot.1.json", bytes);
    open_running(dir);
}

constexpr void (*readers[])(std::string_view bytes) = { read_stream_file,  read_torn_stream,     read_stream_name,
                                                        read_journal_file, read_journal_records, read_snapshot,
                                                        read_snapshot_file };

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 0)
        readers[data[0] % std::size(readers)]({ reinterpret_cast<const char *>(data) + 1, size - 1 });
    return 0;
}
