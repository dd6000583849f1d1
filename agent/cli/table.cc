// See table.h.
#include "agent/cli/table.h"

#include "agent/cli/words.h"

#include <algorithm>

namespace
{

constexpr size_t PAGE_ROWS = 100;
constexpr size_t PAGE_BYTES = 1u << 20; // rows with very long texts make a page earlier
constexpr size_t WIDEST = 56;           // a longer cell takes its room from the cells behind it, in its own row only
constexpr size_t GAP = 2;
constexpr size_t BELOW_INDENT = 2;

} // namespace

size_t row_t::bytes() const
{
    size_t bytes = 0;
    for (const cell_t &cell : cells)
        bytes += cell.column.size() + cell.text.size();
    for (const std::string &line : below)
        bytes += line.size();
    return bytes;
}

void table_t::set_order(std::vector<std::string> names)
{
    for (std::string &name : names)
        order_.emplace(std::move(name), order_.size());
}

bool table_t::add(row_t row)
{
    if (is_page_out_)
        return write(row);
    page_bytes_ += row.bytes();
    page_.push_back(std::move(row));
    return (page_.size() < PAGE_ROWS && page_bytes_ < PAGE_BYTES) || flush();
}

bool table_t::flush()
{
    if (is_page_out_)
        return true;
    is_page_out_ = true;
    for (const row_t &row : page_)
        for (const cell_t &cell : row.cells)
            add_column(cell);
    fit_columns();
    row_t header;
    for (const column_t &column : columns_)
        header.cells.push_back({ column.name, column.name, false });
    bool ok = columns_.empty() || write(header);
    for (size_t i = 0; ok && i < page_.size(); i++)
        ok = write(page_[i]);
    page_.clear();
    return ok;
}

void table_t::add_column(const cell_t &cell)
{
    auto found = std::find_if(columns_.begin(), columns_.end(),
                              [&](const column_t &column) { return column.name == cell.column; });
    if (found == columns_.end()) {
        auto place = order_.find(cell.column);
        size_t order = place == order_.end() ? order_.size() + columns_.size() : place->second;
        auto behind =
            std::find_if(columns_.begin(), columns_.end(), [&](const column_t &other) { return other.order > order; });
        found = columns_.insert(behind, { cell.column, order, cli_width(cell.column), cell.is_number });
    }
    found->width = std::max(found->width, std::min(cli_width(cell.text), WIDEST));
}

// Leaves out the last columns for which the window is too narrow.
void table_t::fit_columns()
{
    size_t used = indent_;
    size_t fitting = 0;
    for (const column_t &column : columns_) {
        used += column.width + (fitting ? GAP : 0);
        if (width_ != 0 && used > width_ && fitting >= keys_)
            break;
        fitting++;
    }
    columns_.erase(columns_.begin() + static_cast<ptrdiff_t>(fitting), columns_.end());
}

const table_t::column_t *table_t::find_column(const std::string &name) const
{
    for (const column_t &column : columns_)
        if (column.name == name)
            return &column;
    return nullptr;
}

// Each cell starts where its column starts, or behind a longer one before it.
std::string table_t::line_of(const row_t &row) const
{
    std::string line(indent_, ' ');
    size_t start = indent_;
    size_t used = indent_; // columns taken so far, the gap behind them included
    for (const column_t &column : columns_) {
        for (const cell_t &cell : row.cells) {
            if (cell.column != column.name || cell.text.empty())
                continue;
            size_t width = cli_width(cell.text);
            bool moves_right = column.is_right && width < column.width;
            size_t at = std::max(start + (moves_right ? column.width - width : 0), used);
            line += std::string(at - cli_width(line), ' ') + cell.text;
            used = at + width + GAP;
        }
        start += column.width + GAP;
    }
    return line + "\n";
}

bool table_t::write(const row_t &row)
{
    if (!output_.write(line_of(row)))
        return false;
    std::vector<std::string> without_column;
    for (const cell_t &cell : row.cells)
        if (!find_column(cell.column))
            without_column.push_back(cell.column + " " + cli_quote_word(cell.text) + "\n");
    return write_below(without_column) && write_below(row.below);
}

bool table_t::write_below(const std::vector<std::string> &lines)
{
    std::string indent(indent_ + BELOW_INDENT, ' ');
    for (const std::string &line : lines)
        if (!output_.write(indent + line))
            return false;
    return true;
}
