// See pipe.h.
#include "agent/cli/pipe.h"

#include "agent/cli/schema.h"

namespace
{

struct format_row_t {
    const char *name;
    format_t format;
    const char *help;
};

constexpr format_row_t formats[] = {
    { "tree", format_t::TREE, "indented" },
    { "table", format_t::TABLE, "lists as tables" },
    { "set", format_t::SET, "commands that make it" },
    { "json", format_t::JSON, "a JSON document" },
    { "xml", format_t::XML, "an XML document" },
};

struct stage_row_t {
    const char *name;
    pipe_set_t set;
    const char *argument; // what stands behind the name; null: nothing
    bool (*take)(pipe_t &pipe, const word_t &argument, cli_error_t &error);
    const char *help;
};

bool take_display(pipe_t &pipe, const word_t &argument, cli_error_t &error)
{
    std::string names;
    for (const format_row_t &row : formats) {
        if (argument.text == row.name)
            pipe.format = row.format;
        names += (names.empty() ? "" : ", ") + std::string(row.name);
    }
    return pipe.format || cli_fail(error, "bad format '" + argument.text + "': " + names, argument.column);
}

bool take_compare(pipe_t &pipe, const word_t &, cli_error_t &)
{
    return pipe.wants_compare = true;
}

bool take_include(pipe_t &pipe, const word_t &argument, cli_error_t &)
{
    pipe.filters.push_back({ true, argument.text });
    return true;
}

bool take_exclude(pipe_t &pipe, const word_t &argument, cli_error_t &)
{
    pipe.filters.push_back({ false, argument.text });
    return true;
}

bool take_count(pipe_t &pipe, const word_t &, cli_error_t &)
{
    return pipe.wants_count = true;
}

bool take_no_more(pipe_t &pipe, const word_t &, cli_error_t &)
{
    pipe.wants_pages = false;
    return true;
}

constexpr stage_row_t stages[] = {
    { "display", PIPE_DISPLAY, "FORMAT", take_display, "show it in another format" },
    { "compare", PIPE_COMPARE, nullptr, take_compare, "only what a commit would change" },
    { "include", PIPE_LINES, "TEXT", take_include, "lines that hold a text" },
    { "exclude", PIPE_LINES, "TEXT", take_exclude, "lines that do not hold a text" },
    { "count", PIPE_LINES, nullptr, take_count, "only the number of lines" },
    { "no-more", PIPE_LINES, nullptr, take_no_more, "all at once, not a screen at a time" },
};

bool is_pipe(const word_t &word)
{
    return word.text == "|" && !word.is_quoted;
}

const stage_row_t *find_stage(const std::string &name, uint8_t allowed)
{
    for (const stage_row_t &row : stages)
        if (row.name == name && (row.set & allowed))
            return &row;
    return nullptr;
}

bool fail_unknown_stage(const word_t &word, uint8_t allowed, cli_error_t &error)
{
    std::vector<std::string> names;
    std::string list;
    for (const stage_row_t &row : stages)
        if (row.set & allowed) {
            names.emplace_back(row.name);
            list += (list.empty() ? "" : ", ") + names.back();
        }
    std::string hint = cli_did_you_mean(word.text, names);
    return cli_fail(error, "'" + word.text + "' cannot stand behind '|' here" + (hint.empty() ? ": " + list : hint),
                    word.column);
}

// One stage, whose '|' is the first word.
bool take_stage(words_view &words, uint8_t allowed, pipe_t &pipe, cli_error_t &error)
{
    if (words.size() == 1)
        return cli_fail(error, "what is to stand behind '|'?", words[0].column);
    const stage_row_t *row = find_stage(words[1].text, allowed);
    if (!row)
        return fail_unknown_stage(words[1], allowed, error);
    size_t size = row->argument ? 3 : 2;
    if (words.size() < size)
        return cli_fail(error, std::string(row->argument) + " is missing behind '" + row->name + "'");
    if (words.size() > size && !is_pipe(words[size]))
        return cli_fail(error, "unexpected '" + words[size].text + "' behind '" + words[size - 1].text + "'",
                        words[size].column);
    if (!row->take(pipe, words[size - 1], error))
        return false;
    words = words.subspan(size);
    return true;
}

} // namespace

size_t pipe_place(words_view words)
{
    size_t place = 0;
    while (place < words.size() && !is_pipe(words[place]))
        place++;
    return place;
}

bool pipe_take(words_view &words, uint8_t allowed, pipe_t &pipe, cli_error_t &error)
{
    size_t place = pipe_place(words);
    words_view behind = words.subspan(place);
    words = words.first(place);
    if (!behind.empty() && allowed == PIPE_NONE)
        return cli_fail(error, "this command takes no '|'", behind.front().column);
    while (!behind.empty())
        if (!take_stage(behind, allowed, pipe, error))
            return false;
    return true;
}

std::vector<choice_t> pipe_choices(words_view behind, uint8_t allowed)
{
    size_t next = pipe_place(behind);
    if (next < behind.size())
        return pipe_choices(behind.subspan(next + 1), allowed);
    std::vector<choice_t> choices;
    if (behind.empty()) {
        for (const stage_row_t &row : stages)
            if (row.set & allowed)
                choices.push_back({ row.name, row.help, false });
        return choices;
    }
    const stage_row_t *row = find_stage(behind[0].text, allowed);
    bool takes_argument = row && row->argument && behind.size() == 1;
    if (takes_argument && row->set == PIPE_DISPLAY)
        for (const format_row_t &format : formats)
            choices.push_back({ format.name, format.help, false });
    else if (takes_argument)
        choices.push_back({ std::string("<") + row->argument + ">", "", true });
    else if (row)
        choices.push_back({ "|", "and then", true });
    return choices;
}
