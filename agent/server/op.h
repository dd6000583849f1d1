// Documents of operations: the input and output of actions and rpcs, and notifications.
//
// A document is a tree of libyang with one operation node in it, below the instances that its path names. It is made
// from a client's JSON or from a daemon's tagged values, judged by the rules of the model as they stand in the view
// given, and written as the other form. Everything here is bounded by its input; nothing changes the datastore.
#ifndef AGENT_SERVER_OP_H
#define AGENT_SERVER_OP_H

#include "agent/server/datastore.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct op_tree_deleter {
    void operator()(lyd_node *node) const { lyd_free_all(node); } // from any node of the tree
};

struct op_document_t {
    std::unique_ptr<lyd_node, op_tree_deleter> op; // the operation's node; owns its parents too
    const schema_info_t *info = nullptr;
    bool is_output = false; // of an action
};

// The input of an action from a JSON object of its parameters; empty text: none are given. Unknown parameters, wrong
// values, missing mandatory ones and broken rules fail: the error names the action, the parameter and the rule.
[[nodiscard]] bool op_read_input(datastore_t &store, view_t view, const path_t &action, std::string_view json,
                                 op_document_t &document, ds_error_t &error);

// The output of an action from what its daemon has answered. A reference to what is not configured is let through: the
// daemon may speak of operational data or of what is gone.
[[nodiscard]] bool op_read_output(datastore_t &store, const path_t &action, std::span<const confd_tag_value_t> values,
                                  op_document_t &document, ds_error_t &error);

// A notification, from its C_XMLBEGIN to its C_XMLEND; a namespace of 0 is the notification's. References as above.
[[nodiscard]] bool op_read_notification(datastore_t &store, std::span<const confd_tag_value_t> values,
                                        op_document_t &document, ds_error_t &error);

// The parameters with their number before, in the order of the model, defaults included: leaves, leaf-lists as C_LIST,
// containers and list entries between C_XMLBEGIN and C_XMLEND.
void op_put_values(wire_writer_t &out, const op_document_t &document);

// The canonical texts of the parameters that were given, in the order of the model.
[[nodiscard]] std::vector<std::string> op_texts(const op_document_t &document);

// A JSON object (RFC 7951) of what stands in the operation, or (whole) of the operation itself by its name. A document
// with nothing in it is empty text, unless whole.
[[nodiscard]] std::string op_json(const op_document_t &document, bool is_whole);

#endif
