// What a crash of the agent leaves: it is killed again and again, at random points of commits by several editors, of
// snapshots and of its own start. After each restart every commit that was acknowledged is there, and each that was in
// flight is there as a whole or not at all.
//
// The seed is printed. AGENTD_CRASH_SEED repeats one (the editors' choices, not the moments of the kills),
// AGENTD_CRASH_COMMITS asks for more than the quick form's.
#include "tests/component/agentd_crash_model.h"

#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <sys/inotify.h>

namespace
{

constexpr int EDITORS = 3;
constexpr int KILLS_OF_A_HUNDRED_COMMITS = 12;
constexpr char CONFIG[] = "auto-phase2 = yes\ndurable = yes\njournal-limit = 20000\n";

std::string dump_of(const agentd_process &agent)
{
    raw_client admin(agent, WIRE_KIND_ADMIN);
    wire_writer_t request;
    request.u8(WIRE_DB_RUNNING);
    request.u8(0);
    std::string text = admin.ask(WIRE_ADMIN_DUMP, request.bytes).text();
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
    return text;
}

std::string document_of(const std::string &vpns)
{
    return vpns.empty() ? "{}" : "{\"crash-net:net\":{\"vpn\":[" + vpns + "]}}";
}

// An operator with VPNs of its own, who commits one random change after the other.
struct editor_t {
    int number = 0;
    std::mt19937 random;
    crash_part_t known;                     // acknowledged
    crash_part_t in_flight;                 // sent with the last apply
    std::atomic<bool> is_in_flight = false; // the only item that others look at meanwhile
    int commits = 0;
    std::string failure; // what a living agent refused

    int first_vpn() const { return 1 + number * 10; }

    // Until the agent goes.
    void work(user_client &user)
    {
        while (user.begin() > 0) {
            crash_part_t next = known;
            if (int result = crash_edit(user, next, first_vpn(), random).make(); result != CONFD_OK)
                return note_end("an edit", result);
            in_flight = next;
            is_in_flight = true;
            if (int result = user.apply(); result != CONFD_OK)
                return note_end("a commit", result);
            is_in_flight = false;
            known = std::move(next);
            commits++;
            if (int result = maapi_finish_trans(user.fd(), user.th); result != CONFD_OK)
                return note_end("an end of a transaction", result);
        }
    }
    void note_end(const char *what, int result)
    {
        if (result != CONFD_EOF)
            failure = std::string(what) + ": " + confd_lasterr();
    }
};

// The names of files that come into a folder, as they come.
class folder_watch
{
public:
    explicit folder_watch(const std::string &path) : fd_(inotify_init1(IN_CLOEXEC))
    {
        inotify_add_watch(fd_, path.c_str(), IN_CREATE | IN_MOVED_TO | IN_DELETE);
    }
    folder_watch(const folder_watch &) = delete;
    folder_watch &operator=(const folder_watch &) = delete;
    ~folder_watch() { close(fd_); }

    // Of the next events, at most 20; false when nothing happens for the time.
    bool wait(int events, int wait_ms)
    {
        while (events > 0) {
            pollfd item{ fd_, POLLIN, 0 };
            if (poll(&item, 1, wait_ms) <= 0)
                return false;
            alignas(inotify_event) char buffer[4096];
            ssize_t size = read(fd_, buffer, sizeof buffer);
            for (ssize_t at = 0; at < size; events--)
                at += static_cast<ssize_t>(sizeof(inotify_event) + reinterpret_cast<inotify_event *>(buffer + at)->len);
        }
        return true;
    }

private:
    int fd_;
};

class agentd_crash : public testing::Test
{
protected:
    agentd_crash()
    {
        const char *seed = getenv("AGENTD_CRASH_SEED"), *commits = getenv("AGENTD_CRASH_COMMITS");
        uint32_t number = seed ? static_cast<uint32_t>(strtoul(seed, nullptr, 10)) : std::random_device{}();
        wanted_commits_ = commits ? atoi(commits) : 500;
        printf("AGENTD_CRASH_SEED=%" PRIu32 "\n", number);
        random_.seed(number);
        for (int i = 0; i < EDITORS; i++) {
            editors_[i].number = i;
            editors_[i].random.seed(number + 1 + static_cast<uint32_t>(i));
        }
    }

    int below(int bound) { return static_cast<int>(random_() % static_cast<uint32_t>(bound)); }

    int commits() const
    {
        int sum = 0;
        for (const editor_t &editor : editors_)
            sum += editor.commits;
        return sum;
    }

    // Lets the editors work and kills the agent in the midst of it.
    void work_and_kill()
    {
        folder_watch state(agent_.dir().path("state"));
        user_client users[EDITORS]{ user_client(agent_), user_client(agent_), user_client(agent_) };
        std::thread threads[EDITORS];
        for (int i = 0; i < EDITORS; i++)
            threads[i] = std::thread([this, i, &users] { editors_[i].work(users[i]); });
        std::this_thread::sleep_for(std::chrono::microseconds(below(60000)));
        int moment = below(3);
        if (moment == 0 && state.wait(1 + below(6), 300)) // a snapshot's files come, move and go one after the other
            kills_in_snapshots_++;
        else if (moment == 1)
            wait_for_a_commit();
        std::this_thread::sleep_for(std::chrono::microseconds(below(300)));
        agent_.kill_it(SIGKILL);
        for (std::thread &thread : threads)
            thread.join();
        for (const editor_t &editor : editors_)
            EXPECT_EQ(editor.failure, "");
        kills_++;
    }

    void wait_for_a_commit()
    {
        auto is_in_flight = [](const editor_t &editor) {
            return editor.is_in_flight.load();
        };
        for (int i = 0; i < 100000 && std::none_of(editors_, editors_ + EDITORS, is_in_flight); i++)
            std::this_thread::yield();
    }

    void restart()
    {
        for (; below(3) == 0; kills_++, kills_in_starts_++) {
            agent_.launch();
            std::this_thread::sleep_for(std::chrono::microseconds(below(40000)));
            agent_.kill_it(SIGKILL);
        }
        agent_.start();
        ASSERT_TRUE(agent_.is_running() && agent_.port()) << agent_.log();
    }

    // What is there must be one of what may be; the editors know it then.
    void settle()
    {
        std::string there = dump_of(agent_);
        for (unsigned choice = 0; choice < 1u << EDITORS; choice++) {
            std::string vpns;
            bool is_possible = true;
            for (const editor_t &editor : editors_) {
                bool is_new = choice >> editor.number & 1;
                is_possible = is_possible && (!is_new || editor.is_in_flight);
                std::string part = crash_document(is_new ? editor.in_flight : editor.known);
                vpns += (vpns.empty() || part.empty() ? "" : ",") + part;
            }
            if (is_possible && there == document_of(vpns))
                return accept(choice);
        }
        std::string vpns;
        for (const editor_t &editor : editors_)
            vpns += crash_document(editor.known) + "\n";
        FAIL() << "after " << kills_ << " kills and " << commits() << " commits the agent holds\n"
               << there << "\nand acknowledged was\n"
               << vpns;
    }

    void accept(unsigned choice)
    {
        for (editor_t &editor : editors_) {
            bool is_new = choice >> editor.number & 1;
            if (is_new)
                editor.known = editor.in_flight;
            (is_new ? in_flight_kept_ : in_flight_lost_) += editor.is_in_flight;
            editor.is_in_flight = false;
        }
    }

    agentd_process agent_{ CONFIG };
    editor_t editors_[EDITORS];
    std::mt19937 random_;
    int wanted_commits_ = 0;
    int kills_ = 0, kills_in_snapshots_ = 0, kills_in_starts_ = 0;
    int in_flight_kept_ = 0, in_flight_lost_ = 0;
};

TEST_F(agentd_crash, leaves_every_acknowledged_commit_and_each_other_one_whole_or_not_at_all)
{
    while (!HasFailure() &&
           (commits() < wanted_commits_ || kills_ < wanted_commits_ * KILLS_OF_A_HUNDRED_COMMITS / 100)) {
        work_and_kill();
        restart();
        if (!HasFailure())
            settle();
    }
    printf(
        "%d commits; %d kills, %d of them around a snapshot and %d in a start; of the commits in flight %d were kept "
        "and %d not\n",
        commits(), kills_, kills_in_snapshots_, kills_in_starts_, in_flight_kept_, in_flight_lost_);
    EXPECT_GT(kills_in_snapshots_, 0);
    EXPECT_GT(kills_in_starts_, 0);
}

// ---- files as a crash of the machine may leave them

struct files_t {
    const char *what;
    void (*leave)(const temp_dir &dir, const std::string &journal, const std::string &snapshot);
};

std::string file_of(const temp_dir &dir, const std::string &start, const std::string &end)
{
    for (const auto &entry : std::filesystem::directory_iterator(dir.path("state"))) {
        std::string name = entry.path().filename().string();
        if (name.starts_with(start) && name.ends_with(end))
            return "state/" + name;
    }
    return "";
}

// A snapshot takes the next generation's journal first, then its own file under another name, then its name.
constexpr files_t left_files[] = {
    { "the next journal, still without content",
      [](const temp_dir &dir, const std::string &, const std::string &) {
          dir.write("state/journal.2", "");
      } },
    { "the next journal",
      [](const temp_dir &dir, const std::string &journal, const std::string &) {
          dir.write("state/journal.2", dir.read(journal).substr(0, 8));
      } },
    { "the next snapshot, still without content",
      [](const temp_dir &dir, const std::string &journal, const std::string &) {
          dir.write("state/journal.2", dir.read(journal).substr(0, 8));
          dir.write("state/snapshot.2.json.new", "");
      } },
    { "half of the next snapshot",
      [](const temp_dir &dir, const std::string &journal, const std::string &snapshot) {
          dir.write("state/journal.2", dir.read(journal).substr(0, 8));
          dir.write("state/snapshot.2.json.new", dir.read(snapshot).substr(0, 30));
      } },
    { "a journal of a later generation with commits of another life",
      [](const temp_dir &dir, const std::string &journal, const std::string &) {
          dir.write("state/journal.2", dir.read(journal));
      } },
    { "the last record torn",
      [](const temp_dir &dir, const std::string &journal, const std::string &) {
          std::string bytes = dir.read(journal);
          dir.write(journal, bytes + bytes.substr(8, bytes.size() / 3));
      } },
    { "zeros behind the last record",
      [](const temp_dir &dir, const std::string &journal, const std::string &) {
          dir.write(journal, dir.read(journal) + std::string(4096, 0));
      } },
};

TEST(agentd_left_files, do_not_keep_the_agent_from_starting_with_all_that_was_committed)
{
    for (const files_t &row : left_files) {
        SCOPED_TRACE(row.what);
        agentd_process agent("auto-phase2 = yes\n");
        ASSERT_EQ(commit(agent, { { "/net/vpn{1}/name", "one" } }).text, "");
        ASSERT_EQ(commit(agent, { { "/net/vpn{2}/name", "two" } }).text, "");
        std::string before = dump_of(agent);
        agent.kill_it(SIGKILL);
        row.leave(agent.dir(), file_of(agent.dir(), "journal.1", ""), file_of(agent.dir(), "snapshot.", ".json"));
        agent.start();
        ASSERT_TRUE(agent.port()) << agent.log();
        EXPECT_EQ(dump_of(agent), before);
        EXPECT_EQ(commit(agent, { { "/net/vpn{3}/name", std::string(3000, 'x') } }).text, "");
        std::string after = dump_of(agent);
        agent.kill_it(SIGKILL);
        agent.start();
        ASSERT_TRUE(agent.port()) << agent.log();
        EXPECT_EQ(dump_of(agent), after);
    }
}

TEST(agentd_left_files, a_first_start_that_was_cut_short_is_made_again)
{
    agentd_process agent("auto-phase2 = yes\n");
    agent.kill_it(SIGKILL);
    std::string journal = agent.dir().read("state/journal.1"), snapshot = agent.dir().read("state/snapshot.1.json");
    struct row_t {
        const char *what;
        size_t journal, snapshot; // bytes that had been written
    };
    for (row_t row : { row_t{ "an empty journal", 0, 0 }, row_t{ "a journal", journal.size(), 0 },
                       row_t{ "half a snapshot", journal.size(), snapshot.size() / 2 } }) {
        SCOPED_TRACE(row.what);
        std::filesystem::remove(agent.dir().path("state/snapshot.1.json"));
        agent.dir().write("state/journal.1", journal.substr(0, row.journal));
        agent.dir().write("state/snapshot.1.json.new", snapshot.substr(0, row.snapshot));
        agent.start();
        ASSERT_TRUE(agent.port()) << agent.log();
        EXPECT_EQ(dump_of(agent), document_of(""));
        agent.kill_it(SIGKILL);
    }
}

} // namespace
