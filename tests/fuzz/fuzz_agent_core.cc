// What the agent's core reads from outside: first byte 0 a path, 1 a leaf's value, else the bytes of a journal file.
#include "agent/server/datastore.h"
#include "agent/server/journal.h"

#include <cstdlib>
#include <string_view>

static const schema_t &test_schema()
{
    static ds_error_t error;
    static std::unique_ptr<schema_t> schema = schema_load(TEST_YANG_DIR, {}, error);
    if (!schema)
        abort();
    return *schema;
}

// A path that is taken reads the same once more from its own text.
static void try_path(std::string_view text)
{
    for (path_form_t form : { PATH_INSTANCE, PATH_LIST, PATH_POINT, PATH_SUBTREE }) {
        path_t path;
        path_t again;
        ds_error_t error;
        if (!path_parse(test_schema(), text, form, path, error))
            continue;
        std::string canonical = path_text(path);
        if (!path_parse(test_schema(), canonical, form, again, error) || path_text(again) != canonical)
            abort();
    }
}

static void try_value(std::string_view text)
{
    for (const schema_info_t &node : test_schema().nodes) {
        value_t value;
        value_t back;
        ds_error_t error;
        if (!node.is(WIRE_NODE_LEAF) || !value_from_text(node, text, "/x", value, error))
            continue;
        confd_value_t form = value_to_confd(value);
        if (!value_from_confd(test_schema(), node, form, "/x", back, error))
            abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    if (input.empty())
        return 0;
    std::string_view rest = input.substr(1);
    if (input[0] == 0)
        try_path(rest);
    else if (input[0] == 1)
        try_value(rest);
    journal_content_t content;
    uint64_t good = 0;
    uint64_t bad = 0;
    if (journal_scan(rest, content, good, bad) && good > rest.size())
        abort();
    return 0;
}
