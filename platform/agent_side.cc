// The steps as rows: what is run, how long it may take, what its output means.
#include "platform/agent_side.h"

#include "common/tip_log.h"

#include <cerrno>
#include <charconv>
#include <cstring>

namespace
{

constexpr uint32_t RETRY_MS = 500;
constexpr uint32_t WATCH_MS = 500;
constexpr uint32_t LOG_EVERY_FAILURES = 20;
constexpr uint32_t EXPECTED_BITS = AGENT_BIT_WLAND | AGENT_BIT_CFGMGR;

struct agent_step_row_t {
    const char *name;
    std::vector<std::string> (*words)(const sysmgrd_t &sysmgrd); // null: nothing to run
    uint32_t limit_ms;
    // Takes the output of a success in; the step that follows.
    agent_step_t (*next)(sysmgrd_t *sysmgrd, const std::string &output);
};

std::vector<std::string> phase2_words(const sysmgrd_t &sysmgrd)
{
    return { sysmgrd.settings.agent_cmd, "--port", std::to_string(sysmgrd.settings.agent_port), "start-phase2" };
}

std::vector<std::string> bits_words(const sysmgrd_t &sysmgrd, uint32_t mask)
{
    return { sysmgrd.settings.agent_bits, "--port", std::to_string(sysmgrd.settings.agent_port), std::to_string(mask) };
}

std::vector<std::string> set_words(const sysmgrd_t &sysmgrd)
{
    return bits_words(sysmgrd, AGENT_BIT_WLAND | sysmgrd.memory.read_bits);
}

std::vector<std::string> look_words(const sysmgrd_t &sysmgrd)
{
    return bits_words(sysmgrd, 0);
}

agent_step_t after_phase2(sysmgrd_t *, const std::string &)
{
    return AGENT_BITS;
}

agent_step_t after_bits(sysmgrd_t *sysmgrd, const std::string &output)
{
    uint32_t bits = 0;
    (void)std::from_chars(output.data(), output.data() + output.size(), bits); // without a number nothing was seen
    if ((sysmgrd->memory.read_bits | bits) != sysmgrd->memory.read_bits) {
        sysmgrd->memory.read_bits |= bits;
        memory_save(sysmgrd->memory);
    }
    return (bits & EXPECTED_BITS) == EXPECTED_BITS ? AGENT_DONE : AGENT_WATCH;
}

constexpr agent_step_row_t steps[] = {
    { "idle", nullptr, 0, nullptr },
    { "phase2", phase2_words, 330000, after_phase2 }, // the command itself waits 300 s for the commits before it
    { "bits", set_words, 30000, after_bits },
    { "watch", look_words, 30000, after_bits },
    { "done", nullptr, 0, nullptr },
};
static_assert(std::size(steps) == NUM_AGENT_STEPS);

void step_run(sysmgrd_t *sysmgrd);

void timer_cb(evutil_socket_t, short, void *arg)
{
    step_run(static_cast<sysmgrd_t *>(arg));
}

void step_run_in(sysmgrd_t *sysmgrd, uint32_t delay_ms)
{
    agent_side_t &agent = sysmgrd->agent;
    timeval delay = timeval_of_ms(delay_ms);
    if (!agent.timer)
        agent.timer.reset(evtimer_new(sysmgrd->base.get(), timer_cb, sysmgrd));
    evtimer_add(agent.timer.get(), &delay);
}

void step_enter(sysmgrd_t *sysmgrd, agent_step_t step)
{
    agent_side_t &agent = sysmgrd->agent;
    bool is_again = agent.step == step;
    agent.step = step;
    agent.failures = 0;
    if (!is_again) {
        agent.reached_ms[step] = monotonic_ms() - sysmgrd->started_ms;
        tip_log("Agent: %s, read bits %u", steps[step].name, sysmgrd->memory.read_bits);
        sysmgrd_changed(sysmgrd);
    }
    if (steps[step].words != nullptr)
        step_run_in(sysmgrd, step == AGENT_WATCH ? WATCH_MS : 0);
}

// An agent that is just coming up fails some times: the log hears of the first and then of every so many.
void step_failed(sysmgrd_t *sysmgrd, const std::string &why)
{
    agent_side_t &agent = sysmgrd->agent;
    if (agent.failures++ % LOG_EVERY_FAILURES == 0)
        tip_log("Agent: %s failed (%u times): %s; trying again each %u ms", steps[agent.step].name, agent.failures,
                why.c_str(), RETRY_MS);
    step_run_in(sysmgrd, RETRY_MS);
}

void step_done(void *arg, bool is_ok, const std::string &output)
{
    auto *sysmgrd = static_cast<sysmgrd_t *>(arg);
    if (is_ok)
        step_enter(sysmgrd, steps[sysmgrd->agent.step].next(sysmgrd, output));
    else
        step_failed(sysmgrd, output);
}

void step_run(sysmgrd_t *sysmgrd)
{
    const agent_step_row_t &row = steps[sysmgrd->agent.step];
    std::vector<std::string> words = row.words(*sysmgrd);
    if (!async_command_start(&sysmgrd->agent.command, sysmgrd->base.get(), words, row.limit_ms, step_done, sysmgrd))
        step_failed(sysmgrd, words.front() + ": " + strerror(errno));
}

} // namespace

void agent_side_begin(sysmgrd_t *sysmgrd)
{
    agent_side_cancel(sysmgrd);
    step_enter(sysmgrd, AGENT_PHASE2);
}

void agent_side_cancel(sysmgrd_t *sysmgrd)
{
    async_command_cancel(&sysmgrd->agent.command);
    sysmgrd->agent.timer.reset();
    sysmgrd->agent.step = AGENT_IDLE;
    sysmgrd->agent.reached_ms.fill(-1);
}

const char *agent_step_name(agent_step_t step)
{
    return steps[step].name;
}
