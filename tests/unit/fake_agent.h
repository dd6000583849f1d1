// A scripted agent: the client library's functions, defined here, which write down what they are asked and answer what
// the test has laid out. Linked in the place of the library.
#ifndef TESTS_UNIT_FAKE_AGENT_H
#define TESTS_UNIT_FAKE_AGENT_H

#include <confd_cdb.h>
#include <confd_dp.h>
#include <confd_events.h>
#include <confd_lib.h>
#include <confd_maapi.h>
#include <cstdarg>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// One changed node of a point, as an iteration meets it.
struct fake_change_t {
    cdb_iter_op op;
    confd_hkeypath_t path;
    std::vector<confd_tag_value_t> values;
};

// A schema node by name; key leaves come first among the children.
struct fake_node_t {
    std::string name;
    std::vector<std::string> keys; // of a list; empty for others
    std::vector<fake_node_t> children;
};

struct fake_agent_t {
    std::recursive_mutex lock;
    std::vector<std::string> calls;     // "FUNCTION ARGUMENTS", in order
    std::map<std::string, int> results; // of functions that shall not succeed, by name
    int error = CONFD_ERR_INTERNAL;     // the error number of these

    // The next delivery.
    cdb_sub_notification type = CDB_SUB_COMMIT;
    int flags = 0;
    std::vector<int> points;
    std::map<int, std::vector<fake_change_t>> changes; // by point; a flat read gives all values of the point
    bool gives_null_array = false;

    std::map<std::string, confd_value_t> leaves;           // operational data by path; of a subscription nothing
    // A transaction is the leaves, list entries ("LIST{KEY}") and presence containers by their paths. Readings named in
    // results, as "get PATH" and "walk LIST", fail.
    std::map<std::string, std::vector<std::vector<confd_value_t>>> entries; // what a walk over a list gives; "7:LIST" in transaction 7
    std::set<std::string> defaults;                                         // leaves that have only these
    int trans_flags = 0;

    std::map<std::string, int> instances;                  // counts of configured lists, by path
    std::string position;                                  // of the session, by cdb_cd
    std::function<void(const std::string &path)> on_write; // before a write takes effect, without the lock
    int next_point = 1;
    std::map<int, int> peers;            // the agent's ends of connected sockets, by the client's
    std::function<void()> on_wait_start; // in the registration thread
    int notification_type = 0;
    std::map<int, std::vector<std::string>> printed; // pieces of text, by user session
    std::map<std::string, confd_data_cbs> data_cbs;  // registered, by callpoint

    std::vector<std::string> calls_of(const std::string &function);
    bool has_called(const std::string &call) { return count(call) > 0; }
    int count(const std::string &call);
    int open_connections(); // that the client has not closed
};

fake_agent_t &agent();
void fake_agent_reset();
// The data model that lookups see; tags are confd_str2hash of the names.
void fake_schema_set(const std::vector<fake_node_t> &top);

// ---- building what is delivered

inline uint32_t tag_of(const std::string &name)
{
    return confd_str2hash(name.c_str());
}

std::string fake_value_text(const confd_value_t &value); // as a path holds it
// A path as the library makes it of a format: %x takes a value, the rest is printf's.
std::string fake_path_text(const char *format, va_list arguments, std::string (*value_text)(const confd_value_t &));
confd_value_t u64(uint64_t value);
confd_value_t u32(uint32_t value);
confd_value_t buf(const char *text); // points to the text
confd_value_t nothing();
confd_tag_value_t entry(const std::string &name, const confd_value_t &value);
confd_tag_value_t begin(const std::string &name, confd_vtype type = C_XMLBEGIN);
confd_tag_value_t end(const std::string &name);

// A path from the outermost element inwards: a name, or the keys of the list before.
struct fake_step_t {
    fake_step_t(const char *step_name) : name(step_name) {}
    fake_step_t(std::vector<confd_value_t> step_keys) : keys(std::move(step_keys)) {}
    std::string name;
    std::vector<confd_value_t> keys;
};
confd_hkeypath_t keypath(const std::vector<fake_step_t> &steps);

#endif
