// Paths as the operator types them, "vpn vpn-instance 5 interface ge0/1 mtu", and as the agent reads them,
// "/vpn/vpn-instance{5}/interface{ge0/1}/mtu".
#ifndef AGENT_CLI_PATH_H
#define AGENT_CLI_PATH_H

#include "agent/cli/schema.h"

#include <string>
#include <vector>

struct path_step_t {
    const lysc_node *node = nullptr;
    std::vector<std::string> keys; // of a list entry; none for a whole list
    size_t text_size = 0;          // of the path's text up to here
};

struct path_t {
    const lysc_node *node = nullptr;  // null: the top of the tree
    std::string text;                 // for the agent; empty at the top
    std::vector<std::string> words;   // as typed
    std::vector<std::string> entries; // texts of the list entries on the way, outermost first
    std::vector<path_step_t> steps;   // the nodes on the way, node the last of them
    bool is_whole_list = false;       // node is a list and no keys were given: all of its entries
    size_t keys_taken = 0;            // keys given of the innermost list
};

// Walks words from start (in `path`, usually the place where the operator stands) as far as they name nodes and keys.
// Ends behind a leaf or leaf-list; used says how many words were taken, and the others are for the caller. An unknown
// name, a bad key or a missing one of several keys is an error, and path stands where it was met.
[[nodiscard]] bool path_walk(const schema_t &schema, words_view words, path_t &path, size_t &used, cli_error_t &error);

// The same towards an action or rpc, where it ends; null when the words end before one.
[[nodiscard]] bool path_walk_action(const schema_t &schema, words_view words, path_t &path, const lysc_node *&action,
                                    size_t &used, cli_error_t &error);

// As path_walk, where nothing may be left over.
[[nodiscard]] bool path_resolve(const schema_t &schema, words_view words, path_t &path, cli_error_t &error);

// The path of one value of a leaf-list.
[[nodiscard]] std::string path_of_value(const path_t &leaf_list, const std::string &value);

// "'vpn vpn-instance 5'", or "the top".
[[nodiscard]] std::string path_place(const path_t &path);

// An agent's path as the operator types it: the words, quoted where needed. Text that is no path is given back as it
// is.
[[nodiscard]] std::string path_words_of(const std::string &agent_path);

// A text of the agent that begins with a path, with that path in quotes as it is typed: "/vpn/vpn-instance{5}/name is
// too long" as "'vpn vpn-instance 5 name' is too long".
[[nodiscard]] std::string path_words_in(const std::string &text);

#endif
