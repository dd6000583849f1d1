// Paths as text: taking them apart, and the printf-like formats of the library's calls.
//
// A format knows %s and %c, the decimal conversions d, i and u with any length, and %x, which takes a confd_value_t
// pointer and prints it as the key that it is: with the label of an enumeration when the schema is loaded, and quoted
// where it has to be. Anything else is refused rather than passed on.
#include "agent/client/confd_internal.h"

#include <charconv>
#include <cstdint>
#include <cstring>

static constexpr size_t MAX_PATH_TEXT = 16 << 10; // bytes

// ---- taking apart

static bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n';
}

// A quoted key behind its opening quote. False when the text ends first.
static bool read_quoted(std::string_view &rest, std::string *key)
{
    while (!rest.empty()) {
        char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"')
            return true;
        if (c == '\\' && !rest.empty()) {
            c = rest.front();
            rest.remove_prefix(1);
        }
        *key += c;
    }
    return false;
}

static std::string read_bare(std::string_view &rest)
{
    size_t size = 0;
    while (size < rest.size() && !is_blank(rest[size]) && rest[size] != '}')
        size++;
    std::string key(rest.substr(0, size));
    rest.remove_prefix(size);
    return key;
}

// Keys behind their opening brace; *is_open when the text ends before the closing one.
static bool read_keys(std::string_view &rest, std::vector<std::string> *keys, bool *is_open)
{
    while (true) {
        while (!rest.empty() && is_blank(rest.front()))
            rest.remove_prefix(1);
        *is_open = rest.empty();
        if (rest.empty())
            return true;
        if (rest.front() == '}') {
            rest.remove_prefix(1);
            return true;
        }
        std::string key;
        if (rest.front() == '"') {
            rest.remove_prefix(1);
            if (!read_quoted(rest, &key))
                return false;
        } else {
            key = read_bare(rest);
        }
        keys->push_back(std::move(key));
    }
}

// Takes "[number]" off the end of a step's name, where there is one. False when what is there is no number.
static bool read_position(path_step_t *step)
{
    size_t open = step->name.find('[');
    if (open == std::string_view::npos)
        return true;
    std::string_view digits = step->name.substr(open + 1);
    if (!digits.ends_with(']'))
        return false;
    digits.remove_suffix(1);
    uint32_t number = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size())
        return false;
    step->position = number;
    step->name = step->name.substr(0, open);
    return true;
}

static bool read_step(std::string_view &rest, path_step_t *step, bool *is_open)
{
    std::string_view start = rest;
    size_t size = std::min(rest.find_first_of("/{"), rest.size());
    step->name = rest.substr(0, size);
    rest.remove_prefix(size);
    if (size_t colon = step->name.find(':'); colon != std::string_view::npos) {
        step->prefix = step->name.substr(0, colon);
        step->name.remove_prefix(colon + 1);
    }
    if (!read_position(step) || step->name.empty())
        return false;
    if (step->position < 0 && !rest.empty() && rest.front() == '{') {
        rest.remove_prefix(1);
        if (!read_keys(rest, &step->keys, is_open))
            return false;
    }
    step->text = start.substr(0, start.size() - rest.size());
    return rest.empty() || rest.front() == '/';
}

bool confd_parse_path(std::string_view text, parsed_path_t *path)
{
    *path = {};
    path->is_absolute = text.starts_with('/');
    if (path->is_absolute)
        text.remove_prefix(1);
    while (!text.empty()) {
        path_step_t step;
        if (!read_step(text, &step, &path->is_in_keys))
            return false;
        path->steps.push_back(std::move(step));
        if (text.empty())
            return true;
        text.remove_prefix(1);
        if (text.empty())
            return false; // a slash at the end
    }
    return true;
}

// ---- formatting

enum length_t {
    LENGTH_CHAR,
    LENGTH_SHORT,
    LENGTH_INT,
    LENGTH_LONG,
    LENGTH_LONG_LONG,
    LENGTH_SIZE,
    LENGTH_MAX,
};

struct length_row_t {
    const char *text;
    length_t length;
};

// Longer ones before those that they begin with.
static constexpr length_row_t length_rows[] = {
    { "hh", LENGTH_CHAR }, { "h", LENGTH_SHORT }, { "ll", LENGTH_LONG_LONG }, { "l", LENGTH_LONG },
    { "z", LENGTH_SIZE },  { "j", LENGTH_MAX },   { "", LENGTH_INT },
};

struct conversion_t {
    std::string flags;
    int width = 0;
    int precision = -1; // -1 for none
    length_t length = LENGTH_INT;
    char letter = 0; // 0 when the format ends before it
};

struct formatter_t {
    std::string_view base; // where a relative path goes on from
    const char *fmt;
    va_list args;
    std::string out;
};

static int read_number(formatter_t &f)
{
    if (*f.fmt == '*') {
        f.fmt++;
        return va_arg(f.args, int);
    }
    int number = 0;
    while (*f.fmt >= '0' && *f.fmt <= '9' && number < static_cast<int>(MAX_PATH_TEXT))
        number = number * 10 + (*f.fmt++ - '0');
    return number;
}

static conversion_t read_conversion(formatter_t &f)
{
    conversion_t c;
    while (*f.fmt != 0 && strchr("-+ 0#", *f.fmt) != nullptr)
        c.flags += *f.fmt++;
    c.width = read_number(f);
    if (*f.fmt == '.') {
        f.fmt++;
        c.precision = read_number(f);
    }
    for (const length_row_t &row : length_rows) {
        size_t size = strlen(row.text);
        if (strncmp(f.fmt, row.text, size) == 0) {
            f.fmt += size;
            c.length = row.length;
            break;
        }
    }
    c.letter = *f.fmt;
    if (*f.fmt != 0)
        f.fmt++;
    return c;
}

static intmax_t take_signed(formatter_t &f, length_t length)
{
    switch (length) {
    case LENGTH_CHAR:
        return static_cast<signed char>(va_arg(f.args, int));
    case LENGTH_SHORT:
        return static_cast<short>(va_arg(f.args, int));
    case LENGTH_INT:
        return va_arg(f.args, int);
    case LENGTH_LONG:
        return va_arg(f.args, long);
    case LENGTH_LONG_LONG:
        return va_arg(f.args, long long);
    case LENGTH_SIZE:
        return va_arg(f.args, ssize_t);
    case LENGTH_MAX:
        return va_arg(f.args, intmax_t);
    }
    return 0;
}

static uintmax_t take_unsigned(formatter_t &f, length_t length)
{
    switch (length) {
    case LENGTH_CHAR:
        return static_cast<unsigned char>(va_arg(f.args, unsigned));
    case LENGTH_SHORT:
        return static_cast<unsigned short>(va_arg(f.args, unsigned));
    case LENGTH_INT:
        return va_arg(f.args, unsigned);
    case LENGTH_LONG:
        return va_arg(f.args, unsigned long);
    case LENGTH_LONG_LONG:
        return va_arg(f.args, unsigned long long);
    case LENGTH_SIZE:
        return va_arg(f.args, size_t);
    case LENGTH_MAX:
        return va_arg(f.args, uintmax_t);
    }
    return 0;
}

static void pad_to_width(formatter_t &f, const conversion_t &c, std::string text)
{
    bool is_left = c.width < 0 || c.flags.find('-') != std::string::npos;
    size_t width = std::min<size_t>(MAX_PATH_TEXT, static_cast<size_t>(c.width < 0 ? -c.width : c.width));
    if (text.size() < width)
        text.insert(is_left ? text.size() : 0, width - text.size(), ' ');
    f.out += text;
}

static void add_number(formatter_t &f, const conversion_t &c)
{
    char text[32];
    if (c.letter == 'u')
        (void)snprintf(text, sizeof text, "%ju", take_unsigned(f, c.length));
    else
        (void)snprintf(text, sizeof text, "%jd", take_signed(f, c.length));
    std::string number = text;
    size_t sign = number.front() == '-';
    bool is_zero_padded = c.flags.find('0') != std::string::npos && c.flags.find('-') == std::string::npos;
    int digits = is_zero_padded && c.precision < 0 ? c.width - static_cast<int>(sign) : c.precision;
    size_t wanted = std::min<size_t>(MAX_PATH_TEXT, static_cast<size_t>(std::max(digits, 0)));
    if (number.size() - sign < wanted)
        number.insert(sign, wanted - (number.size() - sign), '0');
    if (c.letter != 'u' && sign == 0 && c.flags.find('+') != std::string::npos)
        number.insert(0, 1, '+');
    pad_to_width(f, c, std::move(number));
}

static void add_text(formatter_t &f, const conversion_t &c)
{
    const char *text = va_arg(f.args, const char *);
    size_t most = c.precision >= 0 ? static_cast<size_t>(c.precision) : MAX_PATH_TEXT + 1;
    pad_to_width(f, c, std::string(text, strnlen(text, most)));
}

static std::string join(std::string_view base, std::string_view text)
{
    if (text.starts_with('/'))
        return std::string(text);
    return std::string(base) + "/" + std::string(text);
}

// The schema node of the key that comes next in the path so far; null when it is not known.
static const confd_cs_node *node_of_next_key(const formatter_t &f)
{
    std::string so_far = join(f.base, f.out);
    parsed_path_t path;
    if (!confd_parse_path(so_far, &path) || !path.is_in_keys)
        return nullptr;
    return confd_schema_key(confd_schema_find(nullptr, path), path.steps.back().keys.size());
}

static void add_value(formatter_t &f)
{
    const auto *value = va_arg(f.args, const confd_value_t *);
    f.out += wire_quote_key(confd_value_text(node_of_next_key(f), *value));
}

static bool add_conversion(formatter_t &f)
{
    conversion_t c = read_conversion(f);
    switch (c.letter) {
    case 'd':
    case 'i':
    case 'u':
        add_number(f, c);
        return true;
    case 's':
        add_text(f, c);
        return true;
    case 'c':
        f.out += static_cast<char>(va_arg(f.args, int));
        return true;
    case 'x':
        add_value(f);
        return true;
    case '%':
        f.out += '%';
        return true;
    default:
        return false;
    }
}

static bool format_all(formatter_t &f, const char *fmt)
{
    while (*f.fmt != 0) {
        if (*f.fmt != '%') {
            f.out += *f.fmt++;
        } else {
            f.fmt++;
            if (!add_conversion(f)) {
                (void)confd_fail(CONFD_ERR_PROTOUSAGE, "a conversion in the path format \"%s\" is not known", fmt);
                return false;
            }
        }
        if (f.out.size() > MAX_PATH_TEXT) {
            (void)confd_fail(CONFD_ERR_TOOBIG, "the path of format \"%s\" is longer than %zu bytes", fmt,
                             MAX_PATH_TEXT);
            return false;
        }
    }
    return true;
}

// Takes steps of ".." and the step before each out of an absolute path.
static bool resolve_parents(std::string *text)
{
    if (text->find("..") == std::string::npos)
        return true;
    parsed_path_t path;
    if (!confd_parse_path(*text, &path))
        return true; // the agent says what is wrong with it
    std::vector<std::string_view> kept;
    for (const path_step_t &step : path.steps) {
        if (step.text != "..") {
            kept.push_back(step.text);
            continue;
        }
        if (kept.empty()) {
            (void)confd_fail(CONFD_ERR_BADPATH, "the path %s leaves the top", text->c_str());
            return false;
        }
        kept.pop_back();
    }
    std::string resolved;
    for (std::string_view step : kept)
        resolved.append("/").append(step);
    *text = resolved.empty() ? "/" : resolved;
    return true;
}

bool confd_format(std::string_view base, const char *fmt, va_list args, std::string *out)
{
    formatter_t f = { base, fmt, {}, {} };
    va_copy(f.args, args);
    bool ok = format_all(f, fmt);
    va_end(f.args);
    if (ok)
        *out = std::move(f.out);
    return ok;
}

bool confd_format_path(std::string_view base, const char *fmt, va_list args, std::string *out)
{
    std::string text;
    if (!confd_format(base, fmt, args, &text))
        return false;
    text = text.empty() && !base.empty() ? std::string(base) : join(base, text);
    if (!resolve_parents(&text))
        return false;
    *out = std::move(text);
    return true;
}

// ---- positions

// A step of a path with the keys of an entry in place of its position.
static int add_step(std::string *path, const path_step_t &step, list_indexer_t &indexer)
{
    path->append("/");
    if (step.position < 0) {
        path->append(step.text);
        return CONFD_OK;
    }
    if (!step.prefix.empty())
        path->append(step.prefix).append(":");
    path->append(step.name);
    std::vector<confd_value_t> keys;
    if (int result = indexer.find(*path, static_cast<uint32_t>(step.position), &keys); result != CONFD_OK)
        return result;
    parsed_path_t parsed;
    const confd_cs_node *list = confd_parse_path(*path, &parsed) ? confd_schema_find(nullptr, parsed) : nullptr;
    for (size_t i = 0; i < keys.size(); i++) {
        path->append(i == 0 ? "{" : " ");
        path->append(wire_quote_key(confd_value_text(confd_schema_key(list, i), keys[i])));
        wire_free_value(keys[i]);
    }
    path->append("}");
    return CONFD_OK;
}

int confd_resolve_positions(std::string *path, list_indexer_t &indexer)
{
    parsed_path_t parsed;
    if (path->find('[') == std::string::npos || !confd_parse_path(*path, &parsed))
        return CONFD_OK; // the agent says what is wrong with it
    std::string resolved;
    for (const path_step_t &step : parsed.steps)
        if (int result = add_step(&resolved, step, indexer); result != CONFD_OK)
            return result;
    if (!resolved.empty())
        *path = std::move(resolved);
    return CONFD_OK;
}
