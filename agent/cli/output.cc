// See output.h.
#include "agent/cli/output.h"

static bool put_bytes(FILE *out, std::string_view line)
{
    (void)fwrite(line.data(), 1, line.size(), out); // ferror tells
    (void)fputc('\n', out);
    return !ferror(out);
}

bool output_t::write(std::string_view text)
{
    while (!text.empty()) {
        size_t end = text.find('\n');
        partial_ += text.substr(0, end);
        if (end == text.npos)
            return true;
        std::string line;
        line.swap(partial_);
        if (!take_line(line))
            return false;
        text.remove_prefix(end + 1);
    }
    return true;
}

void output_t::end()
{
    if (!partial_.empty())
        (void)write("\n"); // nothing follows
    if (counts_)
        (void)put("Count: " + std::to_string(count_) + (count_ == 1 ? " line" : " lines"));
}

bool output_t::take_line(std::string_view line)
{
    has_lines_ = true;
    for (const line_filter_t &filter : filters_)
        if ((line.find(filter.text) != line.npos) != filter.keeps)
            return true;
    count_++;
    return counts_ || put(line);
}

bool output_t::put(std::string_view line)
{
    if (lines_) {
        lines_->push_back(std::string(line) + "\n");
        return true;
    }
    if (pager_)
        return pager_->put(line);
    if (is_guarded_)
        return put_bytes(out_, pager_safe_text(line));
    return put_bytes(out_, line);
}
