// The shell's modes, and the running of files. See shell.h.
#include "agent/cli/shell.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

bool read_all(const std::string &name, std::string &text, cli_error_t &error)
{
    static constexpr size_t MOST = 16u << 20;
    file_ptr file(fopen(name.c_str(), "re"));
    if (!file)
        return cli_fail(error, name + ": " + strerror(errno));
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file.get())) > 0;) {
        text.append(chunk, n);
        if (text.size() > MOST)
            return cli_fail(error, name + ": the document is longer than " + std::to_string(MOST) + " bytes");
    }
    return !ferror(file.get()) || cli_fail(error, name + ": " + strerror(errno));
}

bool load_document(shell_t &shell, const std::string &name, cli_error_t &error)
{
    std::string text;
    if (!read_all(name, text, error))
        return false;
    if (session_load(shell.session, text, error))
        return true;
    error.text = name + ": " + error.text;
    return false;
}

void note_progress(void *sink, std::string_view text) noexcept
{
    static_cast<shell_t *>(sink)->progress = text;
}

// A commit that takes longer than a second says what it waits for.
void show_progress(void *sink) noexcept
{
    shell_t &shell = *static_cast<shell_t *>(sink);
    if (shell.progress == shell.shown_progress)
        return;
    shell.shown_progress = shell.progress;
    fprintf(shell.news, "  %s\n", shell.progress.c_str());
    fflush(shell.news);
}

} // namespace

void shell_watch_progress(shell_t &shell)
{
    shell.session.on_progress = note_progress;
    shell.session.on_wait = show_progress;
    shell.session.sink = &shell;
}

bool shell_configure(shell_t &shell, cli_error_t &error)
{
    if (!session_begin(shell.session, error))
        return false;
    shell.mode = MODE_CONFIGURATION;
    shell.place = {};
    return true;
}

bool shell_count_changes(shell_t &shell, size_t &count, cli_error_t &error)
{
    std::vector<change_t> changes;
    if (shell.mode == MODE_CONFIGURATION && !session_compare(shell.session, changes, error))
        return false;
    count = changes.size();
    return true;
}

std::string shell_changes_are(size_t count)
{
    return count == 1 ? "1 change is" : std::to_string(count) + " changes are";
}

bool shell_run_file(shell_t &shell, const std::string &name, cli_error_t &error)
{
    static constexpr unsigned MOST_FILES = 8;
    if (shell.mode == MODE_OPERATIONAL && !shell_configure(shell, error))
        return false;
    if (name.ends_with(".xml"))
        return load_document(shell, name, error);
    if (shell.files_open == MOST_FILES)
        return cli_fail(error, name + ": " + std::to_string(MOST_FILES) +
                                   " files are open already; do they load each "
                                   "other?");
    file_ptr file(fopen(name.c_str(), "re"));
    if (!file)
        return cli_fail(error, name + ": " + strerror(errno));
    shell.files_open++;
    bool ok = shell_run_lines(shell, file.get(), name, error);
    shell.files_open--;
    return ok;
}

bool shell_run_lines(shell_t &shell, FILE *input, const std::string &name, cli_error_t &error)
{
    char *line = nullptr;
    size_t room = 0;
    size_t number = 0;
    bool ok = true;
    while (ok && !shell.wants_exit && getline(&line, &room, input) >= 0) {
        number++;
        ok = shell_run_line(shell, line, error);
        fflush(shell.out); // who feeds the lines through a pipe may wait for what each has said
    }
    free(line);
    if (ok && ferror(input))
        return cli_fail(error, name + ": " + strerror(errno));
    if (!ok)
        error.text = shell_place_error(name, number, error);
    error.column = CLI_NO_COLUMN;
    return ok;
}

std::string shell_place_error(const std::string &name, size_t line, const cli_error_t &error)
{
    std::string place = name + ":" + std::to_string(line) + ":";
    if (error.column != CLI_NO_COLUMN)
        place += std::to_string(error.column + 1) + ":";
    return place + " " + error.text;
}
