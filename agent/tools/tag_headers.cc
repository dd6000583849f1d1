// tag_headers: makes a C header from each data model, so that programs name nodes by tag.
//
//   tag_headers --out DIR [--search DIR]... MODULE...
//
// DIR/MODULE.h holds, for a module with prefix P: P__ns (hash of the namespace) and P__nsid (the namespace itself), a
// tag P_NAME for each node and identity of the module, and P_LEAF_LABEL for the values of enumerations and the masks of
// bits. Characters that an identifier cannot hold become underscores. A tag is the hash of the name alone, so one name
// has one tag in all modules.
//
// Two names with one hash, or two names that become one identifier, end the program with status 1 and nothing written:
// programs could not tell them apart. A label whose identifier is taken with another value is left out instead, since
// leaves of one name may have different enumerations.
#include "agent/wire/wire.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <libyang/libyang.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace
{

struct ly_ctx_freer {
    void operator()(ly_ctx *ctx) const { ly_ctx_destroy(ctx); }
};
using ly_ctx_ptr = std::unique_ptr<ly_ctx, ly_ctx_freer>;

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct options_t {
    std::string out;
    std::vector<std::string> search;
    std::vector<std::string> modules;
};

// What one module's header will hold; identifiers are unique within it and sorted.
struct header_t {
    std::map<std::string, uint32_t> tags;
    std::map<std::string, uint32_t> labels;
    std::set<std::string> dropped_labels;
};

struct name_table_t {
    std::map<uint32_t, std::string> name_of_hash;
    std::map<std::string, std::string> name_of_identifier; // over all modules
    std::map<const lys_module *, header_t> headers;
    bool ok = true;
};

__attribute__((format(printf, 1, 2))) void complain(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fputs("tag_headers: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

std::string identifier_of(std::string_view text)
{
    std::string result(text);
    for (char &c : result)
        if (!isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return result;
}

std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text_of(const char *format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    int size = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return std::string(buffer, size < 0 ? 0 : std::min(static_cast<size_t>(size), sizeof buffer - 1));
}

// The hash of a name or namespace; a second text with the same hash is an error.
uint32_t claim_hash(name_table_t &table, std::string_view name)
{
    uint32_t hash = wire_hash(name);
    auto [place, is_new] = table.name_of_hash.emplace(hash, name);
    if (!is_new && place->second != name) {
        complain("'%s' and '%.*s' have the same hash 0x%08x: rename one", place->second.c_str(),
                 static_cast<int>(name.size()), name.data(), hash);
        table.ok = false;
    }
    return hash;
}

void add_tag(name_table_t &table, const lys_module *module, const char *name)
{
    uint32_t hash = claim_hash(table, name);
    std::string identifier = identifier_of(module->prefix) + "_" + identifier_of(name);
    auto [place, is_new] = table.name_of_identifier.emplace(identifier, name);
    if (!is_new && place->second != name) {
        complain("'%s' and '%s' (module %s) both become %s: rename one", place->second.c_str(), name, module->name,
                 identifier.c_str());
        table.ok = false;
    }
    table.headers[module].tags.emplace(identifier, hash);
}

void add_label(header_t &header, const std::string &identifier, uint32_t value)
{
    auto [place, is_new] = header.labels.emplace(identifier, value);
    if (!is_new && place->second != value)
        header.dropped_labels.insert(identifier);
}

void add_labels(header_t &header, const lysc_node *node, const lysc_type *type)
{
    std::string stem = identifier_of(node->module->prefix) + "_" + identifier_of(node->name) + "_";
    LY_ARRAY_COUNT_TYPE i;
    if (type->basetype == LY_TYPE_ENUM) {
        const lysc_type_bitenum_item *enums = reinterpret_cast<const lysc_type_enum *>(type)->enums;
        LY_ARRAY_FOR(enums, i)
        add_label(header, stem + identifier_of(enums[i].name), static_cast<uint32_t>(enums[i].value));
    } else if (type->basetype == LY_TYPE_BITS) {
        const lysc_type_bitenum_item *bits = reinterpret_cast<const lysc_type_bits *>(type)->bits;
        LY_ARRAY_FOR(bits, i)
        if (bits[i].position < 32)
            add_label(header, stem + identifier_of(bits[i].name), 1u << bits[i].position);
    }
}

LY_ERR add_node(lysc_node *node, void *data, ly_bool *) noexcept
{
    name_table_t &table = *static_cast<name_table_t *>(data);
    if (node->nodetype & (LYS_CHOICE | LYS_CASE | LYS_INPUT | LYS_OUTPUT))
        return LY_SUCCESS; // not in data, so they have no tag
    add_tag(table, node->module, node->name);
    if (node->nodetype & (LYS_LEAF | LYS_LEAFLIST))
        add_labels(table.headers[node->module], node, reinterpret_cast<const lysc_node_leaf *>(node)->type);
    return LY_SUCCESS;
}

// Nodes that one module adds to another are met in the walk of the other one, and belong to the one that adds them.
bool collect(const ly_ctx *ctx, name_table_t &table)
{
    uint32_t index = 0;
    while (const lys_module *module = ly_ctx_get_module_iter(ctx, &index)) {
        if (!module->implemented)
            continue;
        (void)claim_hash(table, module->ns);
        if (lysc_module_dfs_full(module, add_node, &table) != LY_SUCCESS)
            return false;
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(module->identities, i)
        add_tag(table, module, module->identities[i].name);
    }
    return table.ok;
}

std::string render(const lys_module *module, const header_t &header, const name_table_t &table)
{
    std::string guard = "YANG_" + identifier_of(module->name) + "_H";
    for (char &c : guard)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    std::string prefix = identifier_of(module->prefix);
    std::string out = text_of("/* Tags of %s; made from the module by tag_headers. */\n", module->name);
    out += "#ifndef " + guard + "\n#define " + guard + "\n\n";
    out += text_of("#define %s__ns 0x%08xu\n", prefix.c_str(), wire_hash(module->ns));
    out += text_of("#define %s__nsid \"%s\"\n", prefix.c_str(), module->ns);
    out += header.tags.empty() ? "" : "\n/* nodes */\n";
    for (const auto &[identifier, hash] : header.tags)
        out += text_of("#define %s 0x%08xu\n", identifier.c_str(), hash);
    out += header.labels.empty() ? "" : "\n/* values of enumerations, masks of bits */\n";
    for (const auto &[identifier, value] : header.labels)
        if (!header.dropped_labels.contains(identifier) && !table.name_of_identifier.contains(identifier))
            out += text_of("#define %s %d\n", identifier.c_str(), static_cast<int32_t>(value));
    return out + "\n#endif\n";
}

std::string read_file(const std::string &path)
{
    std::string result;
    file_ptr file(fopen(path.c_str(), "re"));
    if (!file)
        return result;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file.get())) > 0;)
        result.append(chunk, n);
    return result;
}

// Leaves an unchanged file alone, so that nothing that includes it is built again.
bool write_file(const std::string &path, const std::string &text)
{
    if (read_file(path) == text)
        return true;
    file_ptr file(fopen(path.c_str(), "we"));
    if (!file || fwrite(text.data(), 1, text.size(), file.get()) != text.size() || fflush(file.get()) != 0) {
        complain("cannot write %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool parse_options(int argc, char **argv, options_t &options)
{
    for (int i = 1; i < argc; i++) {
        std::string_view word = argv[i];
        if (word == "--out" && i + 1 < argc)
            options.out = argv[++i];
        else if (word == "--search" && i + 1 < argc)
            options.search.emplace_back(argv[++i]);
        else if (word.starts_with("-"))
            return false;
        else
            options.modules.emplace_back(word);
    }
    return !options.out.empty() && !options.modules.empty();
}

ly_ctx_ptr load_modules(const options_t &options)
{
    ly_ctx *raw = nullptr;
    if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_EXPLICIT_COMPILE | LY_CTX_DISABLE_SEARCHDIR_CWD, &raw) !=
        LY_SUCCESS)
        return nullptr;
    ly_ctx_ptr ctx(raw);
    for (const std::string &dir : options.search)
        if (ly_ctx_set_searchdir(ctx.get(), dir.c_str()) != LY_SUCCESS)
            return nullptr;
    for (const std::string &name : options.modules)
        if (!ly_ctx_load_module(ctx.get(), name.c_str(), nullptr, nullptr)) {
            complain("cannot load module %s", name.c_str());
            return nullptr;
        }
    return ly_ctx_compile(ctx.get()) == LY_SUCCESS ? std::move(ctx) : nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    options_t options;
    if (!parse_options(argc, argv, options)) {
        fputs("usage: tag_headers --out DIR [--search DIR]... MODULE...\n", stderr);
        return 2;
    }
    ly_ctx_ptr ctx = load_modules(options);
    name_table_t table;
    if (!ctx || !collect(ctx.get(), table))
        return 1;
    for (const std::string &name : options.modules) {
        const lys_module *module = ly_ctx_get_module_implemented(ctx.get(), name.c_str());
        if (!write_file(options.out + "/" + name + ".h", render(module, table.headers[module], table)))
            return 1;
    }
    return 0;
}
