// The files of the state directory: finding, reading and replacing generations.
#include "agent/server/journal.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t MAX_FILE = 4ull << 30; // of a snapshot or journal that is read back

namespace
{
// Closes what is not given away.
struct fd_t {
    int fd = -1;
    explicit fd_t(int of) : fd(of) {}
    ~fd_t()
    {
        if (fd >= 0)
            close(fd);
    }
    fd_t(const fd_t &) = delete;
    fd_t &operator=(const fd_t &) = delete;
    int release()
    {
        int given = fd;
        fd = -1;
        return given;
    }
};
} // namespace

journal_t::~journal_t()
{
    if (fd >= 0)
        close(fd);
    if (dir_fd >= 0)
        close(dir_fd);
}

// ---- names

static std::string snapshot_name(uint64_t generation)
{
    return "snapshot." + std::to_string(generation) + ".json";
}

static std::string journal_name(uint64_t generation)
{
    return "journal." + std::to_string(generation);
}

std::string journal_file(const journal_t &journal)
{
    return journal.dir + "/" + journal_name(journal.generation);
}

// The number of a name between prefix and suffix; 0 when it is another name.
static uint64_t generation_of(std::string_view name, std::string_view prefix, std::string_view suffix)
{
    if (!name.starts_with(prefix) || !name.ends_with(suffix) || name.size() <= prefix.size() + suffix.size())
        return 0;
    std::string_view digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    uint64_t generation = 0;
    auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), generation);
    bool is_ours = failure == std::errc() && end == digits.data() + digits.size() && digits[0] != '0';
    return is_ours ? generation : 0;
}

struct generations_t {
    std::vector<uint64_t> snapshots;
    std::vector<uint64_t> journals;
};

static generations_t list_generations(const journal_t &journal)
{
    generations_t found;
    DIR *dir = opendir(journal.dir.c_str());
    while (const dirent *entry = dir ? readdir(dir) : nullptr) {
        if (uint64_t generation = generation_of(entry->d_name, "snapshot.", ".json"))
            found.snapshots.push_back(generation);
        else if (uint64_t number = generation_of(entry->d_name, "journal.", ""))
            found.journals.push_back(number);
    }
    if (dir)
        closedir(dir);
    return found;
}

static uint64_t highest(const std::vector<uint64_t> &generations)
{
    uint64_t most = 0;
    for (uint64_t generation : generations)
        most = generation > most ? generation : most;
    return most;
}

// ---- files

static bool fail_file(const journal_t &journal, const std::string &name, const char *what, ds_error_t &error)
{
    return ds_fail(error, CONFD_ERR_OS, journal.dir + "/" + name + ": " + what + ": " + strerror(errno));
}

static bool read_file(const journal_t &journal, const std::string &name, std::string &bytes, ds_error_t &error)
{
    fd_t file(openat(journal.dir_fd, name.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {
    };
    if (file.fd < 0 || fstat(file.fd, &info) != 0)
        return fail_file(journal, name, "cannot be opened", error);
    if (static_cast<uint64_t>(info.st_size) > MAX_FILE)
        return ds_fail(error, CONFD_ERR_TOOBIG, journal.dir + "/" + name + ": too big to be a file of this agent");
    bytes.resize(static_cast<size_t>(info.st_size));
    size_t have = 0;
    while (have < bytes.size()) {
        ssize_t got = read(file.fd, bytes.data() + have, bytes.size() - have);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return fail_file(journal, name, "cannot be read", error);
        have += static_cast<size_t>(got);
    }
    return true;
}

// A file with this content that is on disk when the call returns; its descriptor, or -1 with the error.
static int write_file(const journal_t &journal, const std::string &name, std::string_view bytes, ds_error_t &error)
{
    fd_t file(openat(journal.dir_fd, name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    bool is_good = file.fd >= 0;
    while (is_good && !bytes.empty()) {
        ssize_t wrote = write(file.fd, bytes.data(), bytes.size());
        is_good = wrote > 0 || (wrote < 0 && errno == EINTR);
        bytes.remove_prefix(wrote > 0 ? static_cast<size_t>(wrote) : 0);
    }
    if (is_good && fsync(file.fd) == 0)
        return file.release();
    (void)fail_file(journal, name, "cannot be written", error); // the result is the descriptor
    return -1;
}

// A copy of a damaged file under another name; the file itself stays where the next start finds it damaged again.
static std::string keep_copy(const journal_t &journal, const std::string &name)
{
    std::string bytes;
    ds_error_t ignored;
    std::string copy = name + ".damaged";
    fd_t file(read_file(journal, name, bytes, ignored) ? write_file(journal, copy, bytes, ignored) : -1);
    return file.fd >= 0 ? "a copy is kept as " + journal.dir + "/" + copy : "no copy could be made: " + ignored.text;
}

bool journal_refuse(const journal_t &journal, uint64_t offset, const std::string &why, ds_error_t &error)
{
    std::string file = journal_file(journal);
    return ds_fail(
        error, CONFD_ERR_INTERNAL,
        file + ": the record at offset " + std::to_string(offset) + " cannot be used: " + why + "; " +
            keep_copy(journal, journal_name(journal.generation)) +
            "; restore the directory from a backup, or give up this commit and all behind it with: truncate -s " +
            std::to_string(offset) + " " + file);
}

// ---- snapshots

static constexpr std::string_view DATA_MARK = ",\"data\":";

static constexpr std::string_view COMMITS_MARK = ",\"commits\":";

static std::string snapshot_head(uint64_t generation, uint64_t commits, std::string_view json)
{
    return "{\"snapshot\":{\"generation\":" + std::to_string(generation) + std::string(COMMITS_MARK) +
           std::to_string(commits) + ",\"bytes\":" + std::to_string(json.size()) +
           ",\"crc32c\":" + std::to_string(journal_crc(json)) + "}" + std::string(DATA_MARK);
}

static constexpr std::string_view SNAPSHOT_TAIL = "}\n";

static uint64_t commits_of(std::string_view head)
{
    size_t mark = head.find(COMMITS_MARK);
    uint64_t commits = 0;
    if (mark != std::string_view::npos)
        (void)std::from_chars(head.data() + mark + COMMITS_MARK.size(), head.data() + head.size(), commits); // else 0
    return commits;
}

static bool take_snapshot(journal_t &journal, const std::string &bytes, std::string &json, ds_error_t &error)
{
    size_t mark = bytes.find(DATA_MARK);
    size_t start = mark == std::string::npos ? bytes.size() : mark + DATA_MARK.size();
    bool has_tail = bytes.size() >= start + SNAPSHOT_TAIL.size() && bytes.ends_with(SNAPSHOT_TAIL);
    std::string data = has_tail ? bytes.substr(start, bytes.size() - start - SNAPSHOT_TAIL.size()) : "";
    uint64_t commits = commits_of(std::string_view(bytes).substr(0, start));
    if (has_tail && bytes.starts_with(snapshot_head(journal.generation, commits, data))) {
        journal.commits = commits;
        json = std::move(data);
        return true;
    }
    std::string name = snapshot_name(journal.generation);
    return ds_fail(error, CONFD_ERR_INTERNAL,
                   journal.dir + "/" + name + ": the snapshot is damaged (its checksum over " +
                       std::to_string(bytes.size()) + " bytes from offset 0 does not fit); " +
                       keep_copy(journal, name) +
                       "; restore the directory from a backup, or remove its files to begin without a configuration");
}

// Removes what other generations have left behind.
static void remove_others(const journal_t &journal)
{
    generations_t found = list_generations(journal);
    for (uint64_t generation : found.snapshots)
        if (generation != journal.generation)
            (void)unlinkat(journal.dir_fd, snapshot_name(generation).c_str(), 0); // tried again with the next snapshot
    for (uint64_t generation : found.journals)
        if (generation != journal.generation)
            (void)unlinkat(journal.dir_fd, journal_name(generation).c_str(), 0); // as above
}

bool journal_snapshot(journal_t &journal, std::string_view json, ds_error_t &error)
{
    uint64_t next = journal.generation + 1;
    fd_t file(write_file(journal, journal_name(next), journal_header(), error));
    if (file.fd < 0)
        return false;
    std::string temporary = snapshot_name(next) + ".new";
    uint64_t commits = journal.commits + journal.sequence;
    std::string bytes = snapshot_head(next, commits, json);
    bytes.append(json);
    bytes.append(SNAPSHOT_TAIL);
    fd_t snapshot(write_file(journal, temporary, bytes, error));
    if (snapshot.fd < 0)
        return false;
    if (fsync(journal.dir_fd) != 0 ||
        renameat(journal.dir_fd, temporary.c_str(), journal.dir_fd, snapshot_name(next).c_str()) != 0)
        return fail_file(journal, snapshot_name(next), "cannot be put in place", error);
    if (fsync(journal.dir_fd) != 0) {
        // A restart may find either generation: what went into the journal of one would be missed in the other.
        (void)fail_file(journal, snapshot_name(next), "is not known to be in place", error); // the result is ours
        journal.failure = error.text;
        return false;
    }
    if (journal.fd >= 0)
        close(journal.fd);
    journal.fd = file.release();
    journal.generation = next;
    journal.size = journal_header().size();
    journal.sequence = 0;
    journal.commits = commits;
    journal.failure.clear();
    remove_others(journal);
    return true;
}

// ---- opening

static bool open_dir(journal_t &journal, ds_error_t &error)
{
    if (mkdir(journal.dir.c_str(), 0700) != 0 && errno != EEXIST)
        return fail_file(journal, "", "the state directory cannot be made", error);
    journal.dir_fd = open(journal.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (journal.dir_fd < 0)
        return fail_file(journal, "", "the state directory cannot be opened", error);
    if (flock(journal.dir_fd, LOCK_EX | LOCK_NB) != 0)
        return ds_fail(error, CONFD_ERR_INUSE, journal.dir + ": another agent uses the state directory");
    return true;
}

static bool open_journal(journal_t &journal, journal_content_t &content, std::vector<std::string> &reports,
                         ds_error_t &error)
{
    std::string name = journal_name(journal.generation);
    journal.fd = openat(journal.dir_fd, name.c_str(), O_RDWR | O_CLOEXEC);
    if (journal.fd < 0 && errno == ENOENT)
        return ds_fail(error, CONFD_ERR_INTERNAL,
                       journal_file(journal) + " is missing, which belongs to " + snapshot_name(journal.generation) +
                           "; restore it from a backup, or give up the commits since the snapshot with: printf "
                           "'AGJNL1\\n\\0' > " +
                           journal_file(journal));
    std::string bytes;
    uint64_t bad = 0;
    if (journal.fd < 0 || !read_file(journal, name, bytes, error))
        return journal.fd < 0 ? fail_file(journal, name, "cannot be opened", error) : false;
    if (!journal_scan(bytes, content, journal.size, bad))
        return journal_refuse(journal, bad,
                              bad ? "it is damaged and others follow it" : "the file is none of this agent", error);
    journal.sequence = content.records.size();
    if (journal.size == bytes.size())
        return true;
    reports.push_back(journal_file(journal) + ": the last record, at offset " + std::to_string(journal.size) +
                      ", was torn by a crash before its commit was acknowledged; " +
                      std::to_string(bytes.size() - journal.size) + " bytes are cut off");
    if (ftruncate(journal.fd, static_cast<off_t>(journal.size)) != 0 || fdatasync(journal.fd) != 0)
        return fail_file(journal, name, "the torn end cannot be cut off", error);
    return true;
}

bool journal_open(journal_t &journal, const std::string &dir, bool is_durable, journal_content_t &content,
                  std::vector<std::string> &reports, ds_error_t &error)
{
    journal.dir = dir;
    journal.is_durable = is_durable;
    content.snapshot = "{}";
    if (!open_dir(journal, error))
        return false;
    generations_t found = list_generations(journal);
    journal.generation = highest(found.snapshots);
    // The very first start writes journal.1 before its snapshot, and may have been cut short in between.
    bool is_first = found.snapshots.empty() && highest(found.journals) <= 1;
    if (is_first)
        return journal_snapshot(journal, content.snapshot, error);
    if (found.snapshots.empty())
        return ds_fail(
            error, CONFD_ERR_INTERNAL,
            dir + ": the snapshot of " + journal_name(highest(found.journals)) +
                " is missing; restore it from a backup, or remove the files of the directory to begin without "
                "a configuration");
    std::string bytes;
    return read_file(journal, snapshot_name(journal.generation), bytes, error) &&
           take_snapshot(journal, bytes, content.snapshot, error) && open_journal(journal, content, reports, error);
}
