// See history.h.
#include "agent/cli/history.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr size_t LONGEST = 4096; // a longer line is no command that someone typed

void write_lines(const std::string &file, int flags, const std::vector<std::string> &lines)
{
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    if (fd < 0)
        return;
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    (void)fchmod(fd, 0600);
    (void)!write(fd, text.data(), text.size()); // a full disk: the history is shorter
    close(fd);
}

} // namespace

std::string history_file()
{
    const char *home = getenv("HOME");
    return home && *home ? std::string(home) + "/.cfgmgr_cli_history" : "";
}

std::vector<std::string> history_load(const std::string &file)
{
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line.size() <= LONGEST)
            lines.push_back(std::move(line));
    if (lines.size() <= HISTORY_LINES)
        return lines;
    bool is_long = lines.size() > 2 * HISTORY_LINES;
    lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(HISTORY_LINES));
    if (is_long)
        write_lines(file, O_TRUNC, lines);
    return lines;
}

void history_add(const std::string &file, const std::string &line)
{
    bool is_one_line = line.find('\n') == line.npos;
    if (!file.empty() && is_one_line && !line.empty() && line.size() <= LONGEST)
        write_lines(file, O_APPEND, { line });
}
