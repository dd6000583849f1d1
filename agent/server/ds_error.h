// How the datastore says that something did not work: an error number of the agent and one text that names the path,
// the value and the rule.
#ifndef AGENT_SERVER_DS_ERROR_H
#define AGENT_SERVER_DS_ERROR_H

#include "agent/wire/confd_value.h"

#include <string>
#include <utility>

struct ds_error_t {
    int code = CONFD_ERR_OK; // confd_errcode_num
    std::string text;
};

// Fills the error and gives false, so that a failing function returns in one line.
inline bool ds_fail(ds_error_t &error, int code, std::string text)
{
    error.code = code;
    error.text = std::move(text);
    return false;
}

#endif
