// Documents merged into a transaction, XML with NETCONF operations and JSON, on a store that has data already.
//
// The first byte says the format. A document that is refused leaves no trace; what one that is taken makes of the
// transaction reads back from what is shown of it.
#include "agent/server/datastore.h"

#include <cstdio>
#include <cstdlib>

namespace
{

constexpr char CONTENT[] = R"({"test-net:vpn":{"vpn-instance":[{"id":"5","name":"five","interface":[)"
                           R"({"name":"ge0/1","mtu":1400,"tag":["b","a"],"port":[7]},{"name":"lo"}],)"
                           R"("rule":[{"name":"z"},{"name":"a"}]}]}})";

void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "finding: %s\n", what);
    abort();
}

datastore_t &test_store()
{
    static datastore_ptr store = [] {
        datastore_options_t options;
        options.yang_dir = TEST_YANG_DIR;
        std::vector<std::string> reports;
        ds_error_t error;
        datastore_ptr made = datastore_open(options, reports, error);
        require(made != nullptr, "the store cannot be opened");
        trans_ptr trans = trans_begin(*made, true, 1);
        diff_ptr diff;
        bool is_set = trans_load(*trans, DOC_JSON, CONTENT, error) && trans_prepare(*trans, diff, error) &&
                      trans_commit(*trans, error);
        if (!is_set)
            fprintf(stderr, "%s\n", error.text.c_str());
        require(is_set, "the store cannot be filled");
        datastore_drop_old(*made);
        return made;
    }();
    return *store;
}

std::string shown(trans_t *trans, doc_format_t format)
{
    view_t view = { trans ? VIEW_TRANS : VIEW_RUNNING, trans };
    std::string text;
    ds_error_t error;
    require(read_show(test_store(), view, SHOW_CONFIG, {}, format, false, text, error),
            "what is there cannot be shown");
    return text;
}

// An empty transaction that loads the text shows the same.
void read_back(const std::string &text, doc_format_t format)
{
    trans_ptr trans = trans_begin(test_store(), true, 1);
    ds_error_t error;
    for (const schema_info_t &node : datastore_schema(test_store()).nodes) {
        path_t path;
        path.steps.push_back({ &node, {} });
        if (!node.parent && node.is(WIRE_NODE_CONFIG))
            (void)trans_delete(*trans, path, error); // there may be nothing
    }
    if (!text.empty() && !trans_load(*trans, format, text, error)) {
        fprintf(stderr, "%s\n%s\n", text.c_str(), error.text.c_str());
        require(false, "what is shown cannot be loaded");
    }
    std::string again = shown(trans.get(), format);
    if (again != text)
        fprintf(stderr, "first:\n%s\nagain:\n%s\n", text.c_str(), again.c_str());
    require(again == text, "what is shown is not what it was loaded from");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static const std::string before = (test_store(), shown(nullptr, DOC_XML));
    auto format = data[0] % 2 == 0 ? DOC_XML : DOC_JSON;
    std::string document(reinterpret_cast<const char *>(data) + 1, size - 1);
    {
        trans_ptr trans = trans_begin(test_store(), true, 1);
        ds_error_t error;
        bool is_taken = trans_load(*trans, format, document, error);
        require(is_taken || !error.text.empty(), "a refusal without a reason");
        require(is_taken || !trans_is_dirty(*trans), "a refused document leaves a trace");
        std::string text = shown(trans.get(), format);
        diff_ptr diff;
        (void)trans_diff(*trans, diff, error);
        if (trans_prepare(*trans, diff, error))
            trans_unprepare(*trans);
        require(shown(trans.get(), format) == text, "a judgement leaves a trace");
        if (is_taken)
            read_back(text, format);
    }
    require(shown(nullptr, DOC_XML) == before, "a transaction that is dropped leaves a trace");
    return 0;
}
