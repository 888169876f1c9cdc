// What the tool prints: text that is safe for a terminal, tables, colours, error lines.
#ifndef ZENTRAVA_TOOLS_TEXT_OUTPUT_H
#define ZENTRAVA_TOOLS_TEXT_OUTPUT_H

#include "failure.h"

#include <stdio.h>

#include <string>
#include <vector>

// A stored text on one line: characters that would move the cursor or change a terminal's state are
// written as escapes ("\n", "\u0085"), everything else as it is.
std::string printable(const std::string& text);

// Columns that a printable text takes on a terminal.
size_t width_of(const std::string& text);

// Cuts a printable text into pieces of at most `width` columns, at spaces where there are some.
std::vector<std::string> wrapped(const std::string& text, size_t width);

// Columns of standard output: the terminal's, or 80.
size_t output_width();

// Colours are for terminals only, and never where NO_COLOR is set to anything but the empty text.
bool colours_are_wanted(FILE* stream);

enum Style { HEADING, FAINT, ALARM };
std::string styled(const std::string& text, Style style, FILE* stream);

// One line on standard error.
void report(const Failure& failure);
void report_note(const std::string& text);

// A row's cells stand side by side, wrapped to their columns; its remark goes below them, indented.
struct Row {
    std::vector<std::string> cells;
    std::string remark;
};

// Prints a table that fits the output's width. The columns get the width of their longest cell; if
// that is too much, the widest column is narrowed and its cells are wrapped. The last column of
// `headings` is the remark's: it stands beside the others where there is room enough for it.
void print_table(const std::vector<std::string>& headings, const std::vector<Row>& rows);

#endif
