// Rows and columns for people.
#ifndef QUARRYCTL_TABLE_H
#define QUARRYCTL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

// How stdout wants its text.
struct Style {
    size_t width = 0; // columns of the terminal; 0: as wide as need be
    bool has_colour = false;
};

// Of a terminal its size, or else what COLUMNS says. Colour is for terminals alone, and not for one
// that is dumb or whose user has set NO_COLOR.
Style style_of_stdout();

struct Column {
    const char *heading;
    bool is_right_aligned = false;
    size_t least = 0;             // how narrow it may become; 0: it never shrinks
    bool is_hidden_empty = false; // left out where no row has anything in it
};

enum Paint { PAINT_NONE, PAINT_BOLD, PAINT_GREEN, PAINT_RED, PAINT_YELLOW };

struct Row {
    std::vector<std::string> cells; // text of any origin, one for each column
    size_t indent = 0;              // columns before the first cell
    Paint paint = PAINT_NONE;       // of the first cell, or
    bool is_painted_whole = false;  // of all
};

// The headings and the rows as lines with their ends. Texts are made fit for a terminal; those that
// do not fit into the width end in "…".
std::string render_table(std::vector<Column> columns, std::vector<Row> rows, const Style &style);

// Text in a colour, if there is to be colour.
std::string painted(const std::string &text, Paint paint, const Style &style);

// A size in the units that drives are sold by, cut and not rounded: "134.2 MB". "?" when negative.
std::string size_text(long long bytes);

#endif
