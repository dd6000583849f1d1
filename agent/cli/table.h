// A table with aligned columns, of any length.
//
// The first page of rows is held back: it decides which columns there are and how wide they are. All later rows are
// written at once. A cell that has no column (the first page did not have it, or the window is too narrow) stands below
// its row, indented; nothing is left out.
#ifndef AGENT_CLI_TABLE_H
#define AGENT_CLI_TABLE_H

#include "agent/cli/output.h"

#include <map>
#include <string>
#include <vector>

struct cell_t {
    std::string column;
    std::string text;
    bool is_number = false; // numbers end at the same place
};

struct row_t {
    std::vector<cell_t> cells;
    std::vector<std::string> below; // lines that follow the row, with their ends

    [[nodiscard]] size_t bytes() const;
};

class table_t
{
public:
    // width is the room on a line, 0: any; the first `keys` columns are never left out.
    table_t(output_t &output, size_t indent, size_t width, size_t keys)
        : output_(output), indent_(indent), width_(width), keys_(keys)
    {
    }
    // Columns stand in this order; those that have none come last, as they come.
    void set_order(std::vector<std::string> names);
    [[nodiscard]] bool add(row_t row);
    // Writes what is held back, and from here on all at once.
    [[nodiscard]] bool flush();
    [[nodiscard]] bool write_below(const std::vector<std::string> &lines);
    [[nodiscard]] bool is_holding_back() const { return !is_page_out_; }

private:
    struct column_t {
        std::string name;
        size_t order;
        size_t width;
        bool is_right;
    };

    void add_column(const cell_t &cell);
    void fit_columns();
    [[nodiscard]] const column_t *find_column(const std::string &name) const;
    [[nodiscard]] std::string line_of(const row_t &row) const;
    bool write(const row_t &row);

    output_t &output_;
    size_t indent_;
    size_t width_;
    size_t keys_;
    std::map<std::string, size_t> order_;
    std::vector<column_t> columns_;
    std::vector<row_t> page_;
    size_t page_bytes_ = 0;
    bool is_page_out_ = false;
};

#endif
