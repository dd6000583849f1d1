// See terminal_keys.h.
#include "agent/cli/terminal_keys.h"

#include <csignal>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

constexpr char KEY_INTERRUPT = 3; // ^C
constexpr char KEY_KILL = 21;     // ^U
constexpr char KEY_ERASE = 8;
constexpr char KEY_DELETE = 127;
constexpr char KEY_END = 4; // ^D

termios before_signal; // of the keys that are raw

// Who ends the program while keys are raw gets a terminal that echoes.
void restore_and_end(int signal) noexcept
{
    (void)tcsetattr(STDIN_FILENO, TCSADRAIN, &before_signal); // the terminal is gone
    (void)raise(signal);                                      // by its default now
}

// Keys come one at a time, unseen, ^C among them, as long as this lives.
class raw_keys_t
{
public:
    raw_keys_t()
    {
        is_changed_ = tcgetattr(STDIN_FILENO, &before_) == 0;
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        is_changed_ = is_changed_ && tcsetattr(STDIN_FILENO, TCSADRAIN, &raw) == 0;
        before_signal = before_;
        struct sigaction action = {};
        action.sa_handler = restore_and_end;
        action.sa_flags = SA_RESETHAND;
        (void)sigaction(SIGTERM, &action, &terminate_before_); // fails for bad signal numbers only
    }
    raw_keys_t(const raw_keys_t &) = delete;
    raw_keys_t &operator=(const raw_keys_t &) = delete;
    ~raw_keys_t()
    {
        (void)sigaction(SIGTERM, &terminate_before_, nullptr); // as above
        if (is_changed_)
            (void)tcsetattr(STDIN_FILENO, TCSADRAIN, &before_); // the terminal is gone
    }
    [[nodiscard]] int read_key() const
    {
        unsigned char key = 0;
        return read(STDIN_FILENO, &key, 1) == 1 ? key : -1;
    }

private:
    struct sigaction terminate_before_ = {};
    termios before_{};
    bool is_changed_ = false;
};

void window_size(void *, size_t &rows, size_t &columns) noexcept
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        return;
    rows = size.ws_row;
    columns = size.ws_col;
}

int next_key(void *) noexcept
{
    return raw_keys_t().read_key();
}

} // namespace

screen_t terminal_screen()
{
    return { nullptr, stdout, window_size, next_key };
}

bool terminal_ask_secret(void *, const std::string &prompt, std::string &secret)
{
    raw_keys_t keys; // before the prompt: who answers at once is not seen either
    printf("%s: ", prompt.c_str());
    fflush(stdout);
    secret.clear();
    bool is_typed = false;
    for (int key; !is_typed && (key = keys.read_key()) >= 0 && key != KEY_INTERRUPT && key != KEY_END;) {
        is_typed = key == '\r' || key == '\n';
        if (key == KEY_KILL)
            secret.clear();
        else if ((key == KEY_ERASE || key == KEY_DELETE) && !secret.empty())
            secret.pop_back();
        else if (key >= ' ' && key != KEY_DELETE)
            secret += static_cast<char>(key);
    }
    puts("");
    return is_typed && !secret.empty();
}
