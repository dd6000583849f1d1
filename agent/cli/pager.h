// Long output on a terminal, a screen at a time.
#ifndef AGENT_CLI_PAGER_H
#define AGENT_CLI_PAGER_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

// The terminal as the pager needs it.
struct screen_t {
    void *data = nullptr;
    FILE *out = nullptr;
    // Lines and columns of the window as it is now; 0 when unknown.
    void (*size)(void *data, size_t &rows, size_t &columns) = nullptr;
    // Waits for a key; -1 at the end of input.
    int (*key)(void *data) = nullptr;
};

// Stops when the window is full: blank shows the next page, return one line, G all that is left; q and ^C end it.
class pager_t
{
public:
    explicit pager_t(const screen_t &screen) : screen_(screen) {}
    // Shows a line, without its end; what a terminal would take for a command is replaced. False: the operator has seen
    // enough.
    [[nodiscard]] bool put(std::string_view line);
    // The next lines are those of another command.
    void restart();

private:
    bool make_room(size_t rows);
    bool ask();

    screen_t screen_;
    size_t rows_free_ = 0; // how many may be shown before the next one
    bool is_fresh_ = true;
    bool is_unlimited_ = false;
    bool is_over_ = false;
};

// Text that is safe to show: bytes that a terminal takes for commands become '?'.
[[nodiscard]] std::string pager_safe_text(std::string_view text);

#endif
