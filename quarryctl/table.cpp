#include "table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "printable.h"

static const size_t gap = 2; // between two columns
static const size_t width_of_unknown_terminal = 80;

static bool is_set(const char *variable)
{
    const char *const value = getenv(variable);
    return value && value[0];
}

Style style_of_stdout()
{
    const bool is_terminal = isatty(STDOUT_FILENO);
    Style style;
    winsize size = {};
    if (is_terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        style.width = size.ws_col;
    const char *const columns = getenv("COLUMNS");
    if (style.width == 0 && columns) {
        const long number = strtol(columns, nullptr, 10);
        style.width = number > 0 && number < 10000 ? static_cast<size_t>(number) : 0;
    }
    if (style.width == 0 && is_terminal)
        style.width = width_of_unknown_terminal;
    const char *const terminal = getenv("TERM");
    const bool is_dumb = !terminal || strcmp(terminal, "dumb") == 0;
    style.has_colour = is_terminal && !is_dumb && !is_set("NO_COLOR");
    return style;
}

std::string painted(const std::string &text, Paint paint, const Style &style)
{
    static const char *const codes[] = {"", "1", "32", "31", "33"};
    if (!style.has_colour || paint == PAINT_NONE)
        return text;
    return std::string("\033[") + codes[paint] + "m" + text + "\033[0m";
}

// Takes columns away that are to be hidden when they are empty.
static void hide_empty_columns(std::vector<Column> &columns, std::vector<Row> &rows)
{
    for (size_t i = columns.size(); i-- > 0;) {
        const auto is_empty = [i](const Row &row) { return row.cells[i].empty(); };
        if (!columns[i].is_hidden_empty || !std::all_of(rows.begin(), rows.end(), is_empty))
            continue;
        const auto position = static_cast<std::ptrdiff_t>(i);
        columns.erase(columns.begin() + position);
        for (Row &row : rows)
            row.cells.erase(row.cells.begin() + position);
    }
}

static std::vector<size_t> natural_widths(const std::vector<Column> &columns,
                                          const std::vector<Row> &rows)
{
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); i++) {
        size_t width = display_width(columns[i].heading);
        for (const Row &row : rows)
            width = std::max(width, display_width(row.cells[i]));
        widths.push_back(width);
    }
    return widths;
}

// Takes from the widest of the columns that may shrink until the row fits, or none may any more.
static void shrink_to_fit(const std::vector<Column> &columns, std::vector<size_t> &widths,
                          size_t limit)
{
    size_t total = gap * (widths.size() - 1);
    for (const size_t width : widths)
        total += width;
    for (; total > limit; total--) {
        size_t *widest = nullptr;
        for (size_t i = 0; i < widths.size(); i++) {
            const bool may_shrink = columns[i].least > 0 && widths[i] > columns[i].least;
            if (may_shrink && (!widest || widths[i] > *widest))
                widest = &widths[i];
        }
        if (!widest)
            return;
        (*widest)--;
    }
}

static std::string cut(const std::string &text, size_t width)
{
    if (display_width(text) <= width)
        return text;
    return width == 0 ? std::string() : std::string(fitting_part(text, width - 1)) + "…";
}

// One line: cells that fit, with blanks between and none at the end. Colour is put around the text
// alone, when the line has its final length.
static std::string render_line(const std::vector<Column> &columns,
                               const std::vector<size_t> &widths, const Row &row,
                               const Style &style)
{
    std::string line;
    std::string blanks; // owed to the cells before
    size_t room = style.width > 0 ? style.width : static_cast<size_t>(-1);
    for (size_t i = 0; i < columns.size(); i++) {
        const std::string text = cut(row.cells[i], widths[i]);
        const std::string padding(widths[i] - display_width(text), ' ');
        if (columns[i].is_right_aligned)
            blanks += padding;
        if (!text.empty()) {
            if (blanks.size() >= room)
                break;
            room -= blanks.size();
            const std::string shown = cut(text, room);
            const bool has_paint = i == 0 || row.is_painted_whole;
            line += blanks + painted(shown, has_paint ? row.paint : PAINT_NONE, style);
            blanks.clear();
            room -= display_width(shown);
        }
        if (!columns[i].is_right_aligned)
            blanks += padding;
        blanks.append(gap, ' ');
    }
    return line + "\n";
}

std::string render_table(std::vector<Column> columns, std::vector<Row> rows, const Style &style)
{
    hide_empty_columns(columns, rows);
    for (Row &row : rows) {
        for (std::string &cell : row.cells)
            cell = printable(cell);
        row.cells[0].insert(0, row.indent, ' ');
    }
    std::vector<size_t> widths = natural_widths(columns, rows);
    if (style.width > 0)
        shrink_to_fit(columns, widths, style.width);

    Row headings;
    for (const Column &column : columns)
        headings.cells.emplace_back(column.heading);
    headings.paint = PAINT_BOLD;
    headings.is_painted_whole = true;
    std::string text = render_line(columns, widths, headings, style);
    for (const Row &row : rows)
        text += render_line(columns, widths, row, style);
    return text;
}

std::string size_text(long long bytes)
{
    static const char *const units[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes < 0)
        return "?";
    size_t unit = 0;
    long long whole = bytes;
    long long rest = 0;
    for (; whole > 999; unit++) {
        rest = whole % 1000;
        whole /= 1000;
    }
    char text[32];
    if (unit == 0)
        snprintf(text, sizeof(text), "%lld B", whole);
    else
        snprintf(text, sizeof(text), "%lld.%lld %s", whole, rest / 100, units[unit]);
    return text;
}
