// Questions that end at a daemon: asked as a user does, and how they ended.
#ifndef TESTS_COMPONENT_CONFORMANCE_OUTCOME_H
#define TESTS_COMPONENT_CONFORMANCE_OUTCOME_H

#include "tests/component/conformance/conform.h"

using clock_type = std::chrono::steady_clock;

constexpr char SHORT_TIMES[] = "callback-timeout-ms = 300\naction-timeout-ms = 300\n";
constexpr auto BOUND = std::chrono::seconds(8); // on a loaded machine

struct outcome_t {
    int error = 0; // 0: all went well
    std::string text;
};

inline outcome_t commit_of(const conform_agent &agent, const std::vector<edit_t> &edits)
{
    commit_result_t result = commit(agent, edits);
    return { result.error, result.text };
}

inline outcome_t read_of(const conform_agent &agent, const char *path)
{
    user_client user(agent);
    confd_value_t value{};
    EXPECT_GT(user.begin(), 0) << confd_lasterr();
    if (maapi_get_elem(user.fd(), user.th, &value, "%s", path) != CONFD_OK)
        return { confd_errno, confd_lasterr() };
    confd_free_value(&value);
    return {};
}

inline outcome_t exists_of(const conform_agent &agent, const char *path)
{
    user_client user(agent);
    EXPECT_GT(user.begin(), 0) << confd_lasterr();
    if (maapi_exists(user.fd(), user.th, "%s", path) < 0)
        return { confd_errno, confd_lasterr() };
    return {};
}

inline outcome_t count_of_list(const conform_agent &agent, const char *path)
{
    user_client user(agent);
    EXPECT_GT(user.begin(), 0) << confd_lasterr();
    if (maapi_num_instances(user.fd(), user.th, "%s", path) < 0)
        return { confd_errno, confd_lasterr() };
    return {};
}

inline outcome_t action_of(const conform_agent &agent, const char *path)
{
    raw_user user(agent);
    raw_client::frame_t reply = user.action(path);
    return { reply.status, reply.status > 0 ? reply.text() : "" };
}

inline outcome_t completion_of(const conform_agent &agent, const char *path)
{
    raw_user user(agent);
    std::string text = user.complete(path, "x");
    if (!text.starts_with("error "))
        return {};
    return { std::stoi(text.substr(6)), text };
}

#endif
