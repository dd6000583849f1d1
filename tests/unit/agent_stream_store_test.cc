// The replay store of notification streams, on a real folder.
#include "agent/server/stream_store.h"
#include "tests/harness/temp_dir.h"

#include <algorithm>
#include <gtest/gtest.h>

struct store_bench {
    store_bench() { open(); }
    void open()
    {
        store = {};
        reports.clear();
        stream_store_open(store, dir.path("replay"), reports);
        store.file_bytes = 1000;
        store.most_files = 3;
    }
    void append(int64_t from, int64_t to)
    {
        ds_error_t error;
        for (int64_t i = from; i <= to; i++)
            EXPECT_TRUE(stream_store_append(store, "s", { i, "event " + std::to_string(i) }, error)) << error.text;
    }
    // First and last of the events that are read, and their number.
    std::string read()
    {
        stream_reader_t reader = stream_reader_open(store, "s");
        return read(reader);
    }
    std::string read(stream_reader_t &reader)
    {
        stream_event_t event;
        std::string first, last;
        int count = 0;
        for (; stream_reader_next(store, reader, &event); count++) {
            EXPECT_EQ(event.document, "event " + std::to_string(event.time_us));
            first = count ? first : std::to_string(event.time_us);
            last = std::to_string(event.time_us);
        }
        return count ? first + ".." + last + " (" + std::to_string(count) + ")" : "none";
    }
    std::vector<std::filesystem::path> files() const
    {
        std::vector<std::filesystem::path> found;
        if (dir.has("replay"))
            for (const auto &file : std::filesystem::directory_iterator(dir.path("replay")))
                found.push_back(file.path());
        std::ranges::sort(found);
        return found;
    }

    temp_dir dir;
    stream_store_t store;
    std::vector<std::string> reports;
};

TEST(agent_stream_store, events_are_read_in_order_also_after_a_restart)
{
    store_bench bench;
    EXPECT_EQ(bench.read(), "none");
    EXPECT_TRUE(bench.files().empty());
    bench.append(1, 10);
    EXPECT_EQ(bench.read(), "1..10 (10)");
    bench.open();
    bench.append(11, 12);
    EXPECT_EQ(bench.read(), "1..12 (12)");
    EXPECT_EQ(stream_store_count(bench.store, "s"), 12u);
}

TEST(agent_stream_store, the_oldest_file_goes_when_there_are_too_many)
{
    store_bench bench;
    bench.append(1, 1000);
    EXPECT_LE(bench.files().size(), 3u);
    EXPECT_EQ(bench.read(), std::to_string(1001 - stream_store_count(bench.store, "s")) + "..1000 (" +
                                std::to_string(stream_store_count(bench.store, "s")) + ")");
    uintmax_t bytes = 0;
    for (const auto &file : bench.files())
        bytes += std::filesystem::file_size(file);
    EXPECT_LT(bytes, 3500u);
}

TEST(agent_stream_store, a_torn_or_damaged_tail_is_cut_and_the_events_before_it_stay)
{
    for (size_t cut = 1; cut < 30; cut += 4) {
        store_bench bench;
        bench.append(1, 5);
        std::filesystem::path file = bench.files().at(0);
        std::filesystem::resize_file(file, std::filesystem::file_size(file) - cut);
        bench.open();
        EXPECT_EQ(bench.reports.size(), 1u);
        EXPECT_EQ(bench.read(), "1..4 (4)") << cut;
        bench.append(5, 6);
        bench.open();
        EXPECT_TRUE(bench.reports.empty());
        EXPECT_EQ(bench.read(), "1..6 (6)") << cut;
    }
}

TEST(agent_stream_store, files_removed_by_others_are_events_that_are_gone)
{
    store_bench bench;
    bench.append(1, 60);
    stream_reader_t reader = stream_reader_open(bench.store, "s");
    stream_event_t event;
    ASSERT_TRUE(stream_reader_next(bench.store, reader, &event));
    for (const auto &file : bench.files())
        std::filesystem::remove(file);
    (void)bench.read(reader); // what it holds open may still be read
    EXPECT_EQ(stream_store_count(bench.store, "s"), 0u);
    EXPECT_EQ(bench.read(), "none");
    bench.append(61, 62);
    EXPECT_EQ(bench.read(), "61..62 (2)");
    bench.open();
    EXPECT_EQ(bench.read(), "61..62 (2)");
}

TEST(agent_stream_store, a_reader_ends_where_the_store_ended_when_it_was_opened)
{
    store_bench bench;
    bench.append(1, 10);
    stream_reader_t reader = stream_reader_open(bench.store, "s");
    bench.append(11, 40);
    EXPECT_EQ(bench.read(reader), "1..10 (10)");
}

TEST(agent_stream_store, a_stream_that_is_switched_off_is_not_kept_and_takes_up_its_files_again)
{
    store_bench bench;
    bench.append(1, 3);
    stream_store_set_disabled(bench.store, { "s" });
    EXPECT_FALSE(stream_store_keeps(bench.store, "s"));
    EXPECT_EQ(bench.read(), "none");
    stream_store_set_disabled(bench.store, {});
    EXPECT_TRUE(stream_store_keeps(bench.store, "s"));
    EXPECT_EQ(bench.read(), "1..3 (3)");
    for (const char *name : { "", "a/b", "..", "a.b", "a b" })
        EXPECT_FALSE(stream_store_keeps(bench.store, name)) << name;
}
