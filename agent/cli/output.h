// Where the lines of a command go: through what stands behind '|' (lines with or without a text, their count), and on a
// terminal through the pager, to the operator.
#ifndef AGENT_CLI_OUTPUT_H
#define AGENT_CLI_OUTPUT_H

#include "agent/cli/pager.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

struct line_filter_t {
    bool keeps = true; // lines with the text; else those without it
    std::string text;
};

class output_t
{
public:
    output_t(FILE *out, pager_t *pager) : out_(out), pager_(pager) {}      // no pager: all at once
    explicit output_t(std::vector<std::string> &lines) : lines_(&lines) {} // lines are added, with their ends
    void add_filter(line_filter_t filter) { filters_.push_back(std::move(filter)); }
    // Control characters in the text do not reach the terminal. The pager sees to that by itself.
    void guard_terminal() { is_guarded_ = true; }
    void count_only() { counts_ = true; }
    // Any piece of text; whole lines go on at once. False when nobody reads on.
    [[nodiscard]] bool write(std::string_view text);
    [[nodiscard]] bool has_lines() const { return has_lines_; } // some came, whether or not they went on
    // After the last piece: a last line without an end, and the count.
    void end();

private:
    bool take_line(std::string_view line);
    bool put(std::string_view line);

    FILE *out_ = nullptr;
    pager_t *pager_ = nullptr;
    std::vector<std::string> *lines_ = nullptr;
    std::vector<line_filter_t> filters_;
    bool is_guarded_ = false;
    bool counts_ = false;
    size_t count_ = 0;
    bool has_lines_ = false;
    std::string partial_; // of the line whose end is still to come
};

#endif
