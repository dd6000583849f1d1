// What may be typed next: for the Tab key and for help.
#ifndef AGENT_CLI_COMPLETE_H
#define AGENT_CLI_COMPLETE_H

#include "agent/cli/path.h"
#include "agent/cli/schema.h"

#include <string>
#include <string_view>
#include <vector>

// Where completion finds what only the agent knows. Either function may be null, and may give nothing.
struct complete_source_t {
    void *data = nullptr;
    // Rows of keys of the entries of the list that path stands at, with its keys left out.
    std::vector<std::vector<std::string>> (*entries)(void *data, const path_t &list) = nullptr;
    // Words of the program that knows the leaf, for what is typed of it; key is Tab or '?'.
    std::vector<choice_t> (*words)(void *data, const std::string &leaf, std::string_view typed, char key) = nullptr;
};

struct completion_t {
    std::vector<choice_t> choices; // those that begin with the word typed so far, placeholders always
    std::string problem;           // what is wrong with the words before; empty: nothing
    size_t typed = 0;              // bytes of the line that the choice replaces, up to its end
};

// line is the text up to the cursor, key what was pressed: Tab or '?'. mode is the shell's (a bit of shell_mode_t), place
// where it stands.
[[nodiscard]] completion_t cli_complete(const schema_t &schema, uint8_t mode, const path_t &place,
                                        const complete_source_t &source, std::string_view line, char key);

// What all insertable choices begin with.
[[nodiscard]] std::string cli_common_prefix(const std::vector<choice_t> &choices);

#endif
