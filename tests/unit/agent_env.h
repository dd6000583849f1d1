// A datastore over the test model, with paths and values as text.
#ifndef TESTS_UNIT_AGENT_ENV_H
#define TESTS_UNIT_AGENT_ENV_H

#include "agent/server/datastore.h"
#include "agent/server/store.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

inline const std::string TEST_KEYS = "0123456789abcdef0123456789abcdef";

inline datastore_ptr open_store(const std::string &state_dir = "", std::vector<std::string> *reports = nullptr,
                                ds_error_t *failure = nullptr)
{
    datastore_options_t options;
    options.yang_dir = TEST_YANG_DIR;
    options.state_dir = state_dir;
    options.durable = false;
    options.crypto_keys = TEST_KEYS;
    std::vector<std::string> told;
    ds_error_t error;
    datastore_ptr store = datastore_open(options, told, error);
    if (!store && !failure)
        ADD_FAILURE() << error.text;
    if (reports)
        *reports = told;
    if (failure)
        *failure = error;
    return store;
}

inline path_t parse(const datastore_ptr &store, const std::string &text, path_form_t form = PATH_SUBTREE)
{
    path_t path;
    ds_error_t error;
    EXPECT_TRUE(path_parse(datastore_schema(*store), text, form, path, error)) << error.text;
    return path;
}

inline confd_value_t buf(const std::string &text)
{
    confd_value_t value{};
    value.type = C_BUF;
    value.val.buf.ptr = reinterpret_cast<unsigned char *>(const_cast<char *>(text.data()));
    value.val.buf.size = static_cast<unsigned>(text.size());
    return value;
}

inline bool move(trans_t &trans, const path_t &path, const std::string &to, ds_error_t &error)
{
    static const std::map<std::string, wire_move_t> places = { { "first", WIRE_MOVE_FIRST },
                                                               { "before", WIRE_MOVE_BEFORE },
                                                               { "after", WIRE_MOVE_AFTER },
                                                               { "last", WIRE_MOVE_LAST } };
    size_t blank = to.find(' ');
    std::string key = blank == std::string::npos ? "" : to.substr(blank + 1);
    confd_value_t value = buf(key);
    return trans_move(trans, path, places.at(to.substr(0, blank)), { &value, key.empty() ? 0u : 1u }, error);
}

// One edit as text: "set PATH VALUE", "create PATH", "delete PATH", "move PATH first|last|before KEY|after KEY". Gives the
// error's code.
inline int edit(trans_t &trans, const std::string &line, std::string *why = nullptr)
{
    size_t first = line.find(' ');
    std::string op = line.substr(0, first);
    std::string rest = line.substr(first + 1);
    std::string value;
    if (op == "set" || op == "move") {
        size_t close = rest.find(' ', rest.rfind('}') == std::string::npos ? 0 : rest.rfind('}'));
        value = close == std::string::npos ? "" : rest.substr(close + 1);
        rest = rest.substr(0, close);
    }
    path_t path;
    ds_error_t error;
    if (!path_parse(datastore_schema(*trans.store), rest, PATH_SUBTREE, path, error))
        return error.code;
    bool is_good = op == "set"      ? trans_set_text(trans, path, value, error)
                   : op == "create" ? trans_create(trans, path, error)
                   : op == "move"   ? move(trans, path, value, error)
                                    : trans_delete(trans, path, error);
    if (why)
        *why = error.text;
    return is_good ? 0 : error.code;
}

inline diff_ptr apply(trans_t &trans, ds_error_t &error, diff_ptr *oper = nullptr)
{
    diff_ptr diff;
    if (!trans_prepare(trans, diff, error) || !trans_commit(trans, error))
        return nullptr;
    diff_ptr pruned = oper_prune(*trans.store, *diff);
    if (oper)
        *oper = std::move(pruned);
    return diff;
}

// Commits the edits and gives the net change.
inline diff_ptr commit(const datastore_ptr &store, const std::vector<std::string> &lines)
{
    trans_ptr trans = trans_begin(*store, true, 1);
    for (const std::string &line : lines)
        EXPECT_EQ(edit(*trans, line), 0) << line;
    ds_error_t error;
    diff_ptr diff = apply(*trans, error);
    EXPECT_TRUE(diff) << error.text;
    return diff;
}

inline std::string text_at(const datastore_ptr &store, view_t view, const std::string &path)
{
    std::string text;
    ds_error_t error;
    return read_text(*store, view, parse(store, path), text, error) ? text : "none";
}

inline std::string line_text(const diff_line_t &line)
{
    static const char *ops[] = { "?", "+", "-", "~", "=", "^" };
    std::string text = ops[line.op] + line.path;
    if (line.op == WIRE_MOP_VALUE_SET)
        text += " " + (line.old_text.empty() ? "" : line.old_text + " -> ") + line.new_text;
    if (line.op == WIRE_MOP_MOVED_AFTER)
        text += " " + line.new_text;
    return text;
}

inline std::string diff_text(const diff_t &diff)
{
    std::string text;
    for (const diff_line_t &line : diff_lines(diff))
        text += (text.empty() ? "" : "\n") + line_text(line);
    return text;
}

// All that is set in running, as path and value.
inline std::map<std::string, std::string> contents(const datastore_ptr &store, show_db_t db = SHOW_CONFIG)
{
    std::map<std::string, std::string> all;
    for (const diff_line_t &line : diff_lines(*read_all_as_diff(*store, db)))
        all[line.path] = line.new_text;
    return all;
}

inline std::string show(const datastore_ptr &store, const std::string &path = "/", doc_format_t format = DOC_JSON,
                        bool with_defaults = false, show_db_t db = SHOW_CONFIG)
{
    std::string text;
    ds_error_t error;
    EXPECT_TRUE(read_show(*store, {}, db, parse(store, path), format, with_defaults, text, error)) << error.text;
    return text;
}

#endif
