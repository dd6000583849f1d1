// The configuration that the agent's benchmark works on, and what the same work costs when the whole tree is copied,
// judged and compared with libyang, as the figure to beat.
#ifndef BENCH_AGENT_SCALE_DATA_H
#define BENCH_AGENT_SCALE_DATA_H

#include <string>

inline constexpr int INTERFACES = 50; // of each VPN
inline constexpr int LEAVES = 17;     // that a document sets in each interface, values of its leaf-list and no key
inline constexpr int ROUTES = 100000; // rows that the provider gives
inline constexpr char MTU_PATH[] = "/net/vpn{%d}/interface{if%d}/mtu";

// Documents of VPNs first to first + vpns - 1 with that many interfaces, and of the profiles that they refer to.
[[nodiscard]] std::string scale_document(int first, int vpns, int interfaces);

struct whole_tree_t {
    size_t nodes = 0;       // with defaults
    double parse_ms = 0;    // of the document, and judging it
    double copy_ms = 0;     // of the tree
    double validate_ms = 0; // of the copy, in which a leaf was changed
    double diff_ms = 0;     // of tree and copy
    double commit_ms = 0;   // all that, and freeing the old tree: the median
};
// The models are those in yang_dir.
[[nodiscard]] whole_tree_t whole_tree_measure(const std::string &yang_dir, const std::string &document);

#endif
