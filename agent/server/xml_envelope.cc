#include "agent/server/xml_envelope.h"

#include <algorithm>
#include <vector>

static constexpr size_t MAX_NESTING = 128;
static constexpr std::string_view BLANKS = " \t\r\n";
static constexpr size_t NOWHERE = std::string_view::npos;

struct declaration_t {
    std::string_view name; // "xmlns" or "xmlns:prefix"
    std::string_view value;
    std::string_view text; // of the whole attribute
};

struct start_tag_t {
    std::string_view name; // with its prefix
    std::vector<declaration_t> declarations;
    size_t end = 0; // behind it
    bool is_empty = false;
};

static size_t skip_blank(std::string_view text, size_t at)
{
    return std::min(text.find_first_not_of(BLANKS, at), text.size());
}

// Reads an attribute at the position; false when there is none that is well formed.
static bool read_attribute(std::string_view text, size_t &at, start_tag_t &tag)
{
    size_t equals = text.find('=', at);
    size_t quote = equals == NOWHERE ? NOWHERE : skip_blank(text, equals + 1);
    if (quote >= text.size() || (text[quote] != '"' && text[quote] != '\''))
        return false;
    size_t close = text.find(text[quote], quote + 1);
    if (close == NOWHERE)
        return false;
    std::string_view name = text.substr(at, equals - at);
    name = name.substr(0, name.find_last_not_of(BLANKS) + 1);
    if (name == "xmlns" || name.starts_with("xmlns:"))
        tag.declarations.push_back(
            { name, text.substr(quote + 1, close - quote - 1), text.substr(at, close + 1 - at) });
    at = close + 1;
    return true;
}

static bool read_start_tag(std::string_view text, size_t at, start_tag_t &tag)
{
    size_t end = text.find_first_of(" \t\r\n/>", at);
    if (end == NOWHERE || text.substr(at, 1) != "<")
        return false;
    tag.name = text.substr(at + 1, end - at - 1);
    for (at = skip_blank(text, end); at < text.size(); at = skip_blank(text, at)) {
        tag.is_empty = text.substr(at, 2) == "/>";
        tag.end = at + (tag.is_empty ? 2 : 1);
        if (tag.is_empty || text[at] == '>')
            return true;
        if (!read_attribute(text, at, tag))
            return false;
    }
    return false;
}

struct mark_row_t {
    std::string_view start;
    std::string_view end;
};
static constexpr mark_row_t marks_without_elements[] = {
    { "<!--", "-->" },
    { "<![CDATA[", "]]>" },
    { "<?", "?>" },
};

// Behind a comment, CDATA or instruction that begins here; the same position when none does, NOWHERE when it has no
// end.
static size_t skip_mark(std::string_view text, size_t at)
{
    for (const mark_row_t &row : marks_without_elements) {
        if (!text.substr(at).starts_with(row.start))
            continue;
        size_t end = text.find(row.end, at + row.start.size());
        return end == NOWHERE ? NOWHERE : end + row.end.size();
    }
    return at;
}

// Position of the first element, behind declarations and comments.
static size_t first_element(std::string_view text)
{
    size_t at = skip_blank(text, 0);
    for (size_t next = skip_mark(text, at); next != at && next != NOWHERE; next = skip_mark(text, at))
        at = skip_blank(text, next);
    return at;
}

static bool is_envelope(std::string_view name)
{
    name.remove_prefix(name.find(':') == NOWHERE ? 0 : name.find(':') + 1);
    return name == "config" || name == "data";
}

// The declarations of the envelope that the element neither makes itself nor must not get: without a prefix, NETCONF's
// own.
static void declare(const start_tag_t &envelope, const start_tag_t &tag, std::string &out)
{
    for (const declaration_t &outer : envelope.declarations) {
        bool is_own = std::ranges::any_of(tag.declarations, [&](const auto &own) { return own.name == outer.name; });
        if (!is_own && (outer.name != "xmlns" || outer.value != NETCONF_NAMESPACE))
            out.append(" ").append(outer.text);
    }
}

// Copies elements, with the envelope's declarations in the outermost ones. What is not well formed ends the work: the
// rest is copied as it is.
static bool copy_elements(std::string_view text, const start_tag_t &envelope, std::string &out, ds_error_t &error)
{
    size_t copied = 0;
    size_t depth = 0;
    for (size_t at = text.find('<'); at != NOWHERE; at = text.find('<', at)) {
        size_t behind = skip_mark(text, at);
        if (behind == NOWHERE)
            break;
        if (behind != at) {
            at = behind;
        } else if (text.substr(at, 2) == "</") {
            depth -= depth > 0 ? 1 : 0;
            at += 2;
        } else {
            start_tag_t tag;
            if (!read_start_tag(text, at, tag))
                break;
            if (depth == 0) {
                size_t name_end = at + 1 + tag.name.size();
                out.append(text.substr(copied, name_end - copied));
                declare(envelope, tag, out);
                copied = name_end;
            }
            depth += tag.is_empty ? 0 : 1;
            at = tag.end;
        }
        if (depth > MAX_NESTING)
            return ds_fail(error, CONFD_ERR_TOOBIG, "the document is refused: its elements are nested too deep");
    }
    out.append(text.substr(copied));
    return true;
}

// Where the envelope's content ends; NOWHERE when the document has no envelope, or none that is closed.
static size_t envelope_end(std::string_view document, const start_tag_t &envelope)
{
    if (!is_envelope(envelope.name) || envelope.is_empty)
        return is_envelope(envelope.name) ? envelope.end : NOWHERE;
    size_t close = document.rfind("</");
    bool is_its_own = close != NOWHERE && close >= envelope.end &&
                      document.substr(close + 2).starts_with(envelope.name) &&
                      document.substr(skip_blank(document, close + 2 + envelope.name.size())).starts_with('>');
    return is_its_own ? close : NOWHERE;
}

bool xml_take_content(std::string_view document, std::string &content, ds_error_t &error)
{
    start_tag_t envelope;
    size_t end = NOWHERE;
    if (read_start_tag(document, first_element(document), envelope))
        end = envelope_end(document, envelope);
    std::string made;
    if (end == NOWHERE) { // copied for the sake of its depth
        if (!copy_elements(document, {}, made, error))
            return false;
    } else {
        auto lines = std::ranges::count(document.substr(0, envelope.end), '\n');
        made.assign(static_cast<size_t>(lines), '\n');
        if (!copy_elements(document.substr(envelope.end, end - envelope.end), envelope, made, error))
            return false;
    }
    content = std::move(made);
    return true;
}
