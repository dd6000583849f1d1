#include "agent/server/xpath.h"

#include "agent/server/ly_array.h"

#include <cctype>
#include <cstring>
#include <vector>

// ---- other words

namespace
{
// Walks an expression that libyang has accepted, and gives it back part by part.
class rewriter_t
{
public:
    explicit rewriter_t(std::string_view text) : text_(text) {}
    // What stands before the next bracket or comma that is not its own, or the end.
    std::string group(bool in_predicate);

private:
    enum token_t {
        TOKEN_END,
        TOKEN_AND,
        TOKEN_OR,
        TOKEN_PART
    };

    token_t next(bool in_predicate, std::string &part);
    token_t name(std::string &part);
    void literal(std::string &part);
    void bracket(bool in_predicate, std::string &part);
    [[nodiscard]] char look(size_t ahead) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0'; }

    std::string_view text_;
    size_t at_ = 0;
    bool is_behind_operand_ = false; // then a name is an operator
};

bool is_name_start(char c)
{
    return isalpha(static_cast<unsigned char>(c)) || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

bool is_name_part(char c)
{
    return is_name_start(c) || isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '.';
}

// Operands joined by one operator, "and" or "or"; a single one as it is.
std::string join(const std::vector<std::string> &operands, bool in_predicate, const char *word, const char *number_word)
{
    if (operands.size() == 1)
        return operands[0];
    std::string text;
    for (const std::string &operand : operands) {
        text += text.empty() ? "" : in_predicate ? number_word : word;
        text += in_predicate ? "boolean(" + operand + ")" : operand;
    }
    return text + (in_predicate ? " > 0" : "");
}

std::string rewriter_t::group(bool in_predicate)
{
    std::vector<std::string> sums;
    std::vector<std::string> products;
    std::string operand;
    is_behind_operand_ = false;
    for (;;) {
        token_t token = next(in_predicate, operand);
        if (token == TOKEN_PART)
            continue;
        products.push_back(std::move(operand));
        operand.clear();
        if (token == TOKEN_AND)
            continue;
        sums.push_back(join(products, in_predicate, "and", " * "));
        products.clear();
        if (token == TOKEN_END)
            return join(sums, in_predicate, "or", " + ");
    }
}

// Adds the next part to the operand, unless an operator or the end of the group is next.
rewriter_t::token_t rewriter_t::next(bool in_predicate, std::string &part)
{
    char c = look(0);
    if (c == '\0' || c == ')' || c == ']' || c == ',')
        return TOKEN_END;
    if (is_name_start(c))
        return name(part);
    if (c == '\'' || c == '"') {
        literal(part);
    } else if (c == '(' || c == '[') {
        bracket(in_predicate, part);
    } else {
        // A star is an operand where an operator cannot stand.
        if (!isspace(static_cast<unsigned char>(c)))
            is_behind_operand_ =
                c == '.' || isdigit(static_cast<unsigned char>(c)) || (c == '*' && !is_behind_operand_);
        part += c;
        at_++;
    }
    return TOKEN_PART;
}

// A prefix is part of the name, an axis is not.
rewriter_t::token_t rewriter_t::name(std::string &part)
{
    size_t start = at_;
    while (is_name_part(look(0)) || (look(0) == ':' && look(1) != ':' && text_[at_ - 1] != ':'))
        at_++;
    std::string_view word = text_.substr(start, at_ - start);
    bool is_operator = is_behind_operand_;
    is_behind_operand_ = !is_operator && word.back() != ':';
    if (is_operator && word == "and")
        return TOKEN_AND;
    if (is_operator && word == "or")
        return TOKEN_OR;
    part += word;
    return TOKEN_PART;
}

void rewriter_t::literal(std::string &part)
{
    size_t close = text_.find(text_[at_], at_ + 1);
    size_t length = close == std::string_view::npos ? text_.size() - at_ : close + 1 - at_;
    part += text_.substr(at_, length);
    at_ += length;
    is_behind_operand_ = true;
}

void rewriter_t::bracket(bool in_predicate, std::string &part)
{
    bool is_predicate = look(0) == '[';
    do {
        part += text_[at_++];
        part += group(in_predicate || is_predicate);
    } while (look(0) == ',');
    if (look(0) != '\0')
        part += text_[at_++];
    is_behind_operand_ = true;
}
} // namespace

std::string xpath_plain_predicates(std::string_view text)
{
    return rewriter_t(text).group(false);
}

// ---- the modules

namespace
{
class module_rewriter_t
{
public:
    explicit module_rewriter_t(ly_ctx *ctx) : ctx_(ctx) {}
    template <typename Module> void rewrite(const Module &module)
    {
        siblings(module.data);
        groupings(module.groupings);
        augments(module.augments);
    }

private:
    void expression(const char *&text);
    void musts(lysp_restr *list);
    void when(lysp_when *statement);
    void siblings(const lysp_node *first);
    void groupings(const lysp_node_grp *first);
    void augments(const lysp_node_augment *first);
    void own_rules(const lysp_node *node);
    template <typename Node> void both_rules(const lysp_node *node)
    {
        musts(reinterpret_cast<const Node *>(node)->musts);
        when(reinterpret_cast<const Node *>(node)->when);
    }
    template <typename Node> void only_when(const lysp_node *node) { when(reinterpret_cast<const Node *>(node)->when); }
    void uses(const lysp_node_uses *node);

    ly_ctx *ctx_;
};

// Texts of the model are in the context's dictionary.
void module_rewriter_t::expression(const char *&text)
{
    if (!text || !strchr(text, '['))
        return;
    std::string plain = xpath_plain_predicates(text);
    const char *stored = nullptr;
    if (plain == text || lydict_insert(ctx_, plain.c_str(), plain.size(), &stored) != LY_SUCCESS)
        return;
    lydict_remove(ctx_, text);
    text = stored;
}

void module_rewriter_t::musts(lysp_restr *list)
{
    for (size_t u = 0; u < ly_count(list); u++)
        expression(list[u].arg.str);
}

void module_rewriter_t::when(lysp_when *statement)
{
    if (statement)
        expression(statement->cond);
}

void module_rewriter_t::uses(const lysp_node_uses *node)
{
    when(node->when);
    for (size_t u = 0; u < ly_count(node->refines); u++)
        musts(node->refines[u].musts);
    augments(node->augments);
}

void module_rewriter_t::own_rules(const lysp_node *node)
{
    switch (node->nodetype) {
    case LYS_CONTAINER:
        return both_rules<lysp_node_container>(node);
    case LYS_LEAF:
        return both_rules<lysp_node_leaf>(node);
    case LYS_LEAFLIST:
        return both_rules<lysp_node_leaflist>(node);
    case LYS_LIST:
        return both_rules<lysp_node_list>(node);
    case LYS_ANYXML:
    case LYS_ANYDATA:
        return both_rules<lysp_node_anydata>(node);
    case LYS_CHOICE:
        return only_when<lysp_node_choice>(node);
    case LYS_CASE:
        return only_when<lysp_node_case>(node);
    case LYS_USES:
        return uses(reinterpret_cast<const lysp_node_uses *>(node));
    default:
        return;
    }
}

void module_rewriter_t::siblings(const lysp_node *first)
{
    for (const lysp_node *node = first; node; node = node->next) {
        own_rules(node);
        groupings(lysp_node_groupings(node));
        siblings(lysp_node_child(node));
    }
}

void module_rewriter_t::groupings(const lysp_node_grp *first)
{
    for (const lysp_node *node = reinterpret_cast<const lysp_node *>(first); node; node = node->next) {
        groupings(lysp_node_groupings(node));
        siblings(lysp_node_child(node));
    }
}

void module_rewriter_t::augments(const lysp_node_augment *first)
{
    for (const lysp_node *node = reinterpret_cast<const lysp_node *>(first); node; node = node->next) {
        only_when<lysp_node_augment>(node);
        siblings(lysp_node_child(node));
    }
}
} // namespace

void xpath_rewrite_modules(ly_ctx *ctx)
{
    module_rewriter_t rewriter(ctx);
    uint32_t at = 0;
    while (const lys_module *mod = ly_ctx_get_module_iter(ctx, &at)) {
        if (!mod->parsed || mod->compiled)
            continue;
        rewriter.rewrite(*mod->parsed);
        for (size_t u = 0; u < ly_count(mod->parsed->includes); u++)
            rewriter.rewrite(*mod->parsed->includes[u].submodule);
    }
}
