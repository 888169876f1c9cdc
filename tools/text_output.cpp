#include "text_output.h"

#include <limits.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <numeric>

static const size_t USUAL_WIDTH = 80;
static const size_t GAP = 2;                // columns between two cells
static const size_t NARROWEST_COLUMN = 8;   // nothing is wrapped tighter than this
static const size_t NARROWEST_REMARKS = 24; // a remark with less room goes below its row

// ---------------------------------------------------------------------------------------------
// Characters
// ---------------------------------------------------------------------------------------------

// The user's locale may not know UTF-8, in which the store's texts are.
static locale_t utf8_locale()
{
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return locale;
}

struct Character {
    size_t bytes;
    wchar_t value;
    int width; // negative: not printable
};

// A byte that begins no character stands for itself and is not printable.
static Character character_at(const std::string& text, size_t position)
{
    const locale_t before = uselocale(utf8_locale());
    Character character = {1, static_cast<unsigned char>(text[position]), -1};
    mbstate_t state = {};
    wchar_t value = 0;
    const size_t bytes = mbrtowc(&value, text.data() + position, text.size() - position, &state);
    if (bytes > 0 && bytes <= text.size() - position) {
        character = {bytes, value, wcwidth(value)};
    }
    uselocale(before);
    return character;
}

static std::string escape_of(wchar_t value)
{
    switch (value) {
    case L'\n':
        return "\\n";
    case L'\r':
        return "\\r";
    case L'\t':
        return "\\t";
    default: {
        char escape[16];
        snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(value));
        return escape;
    }
    }
}

std::string printable(const std::string& text)
{
    std::string result;
    for (size_t position = 0; position < text.size();) {
        const Character character = character_at(text, position);
        result += character.width >= 0 ? text.substr(position, character.bytes)
                                       : escape_of(character.value);
        position += character.bytes;
    }
    return result;
}

size_t width_of(const std::string& text)
{
    size_t width = 0;
    for (size_t position = 0; position < text.size();) {
        const Character character = character_at(text, position);
        width += static_cast<size_t>(std::max(character.width, 0));
        position += character.bytes;
    }
    return width;
}

// The bytes of a text's beginning that fit the width, at least one character.
static size_t fitting_bytes(const std::string& text, size_t width)
{
    size_t position = 0;
    size_t used = 0;
    while (position < text.size()) {
        const Character character = character_at(text, position);
        used += static_cast<size_t>(std::max(character.width, 0));
        if (used > width && position > 0) {
            break;
        }
        position += character.bytes;
    }
    return position;
}

std::vector<std::string> wrapped(const std::string& text, size_t width)
{
    std::vector<std::string> lines;
    std::string rest = text;
    while (width_of(rest) > width) {
        size_t end = fitting_bytes(rest, width);
        const size_t space = rest.rfind(' ', end);
        const bool at_space = space != std::string::npos && space > 0;
        if (at_space) {
            end = space;
        }
        lines.push_back(rest.substr(0, end));
        rest.erase(0, at_space ? end + 1 : end);
    }
    lines.push_back(rest);
    return lines;
}

// ---------------------------------------------------------------------------------------------
// The terminal
// ---------------------------------------------------------------------------------------------

size_t output_width()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return USUAL_WIDTH;
}

bool colours_are_wanted(FILE* stream)
{
    const char* no_color = getenv("NO_COLOR");
    const char* terminal = getenv("TERM");
    return isatty(fileno(stream)) == 1 && (no_color == NULL || no_color[0] == '\0') &&
           (terminal == NULL || strcmp(terminal, "dumb") != 0);
}

std::string styled(const std::string& text, Style style, FILE* stream)
{
    if (!colours_are_wanted(stream)) {
        return text;
    }
    static const char* const BEGINNINGS[] = {"\033[1m", "\033[2m", "\033[1;31m"};
    return BEGINNINGS[style] + text + "\033[0m";
}

// ---------------------------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------------------------

static std::string place_of(const Failure& failure)
{
    if (failure.file.empty()) {
        return "";
    }
    const std::string line = failure.line > 0 ? ":" + std::to_string(failure.line) : "";
    return printable(failure.file) + line + ": ";
}

void report(const Failure& failure)
{
    const std::string remedy = failure.remedy.empty() ? "" : "; " + printable(failure.remedy);
    fprintf(stderr, "%s: %s%s%s\n", styled("zentrava-keystore", ALARM, stderr).c_str(),
            place_of(failure).c_str(), printable(failure.cause).c_str(), remedy.c_str());
}

void report_note(const std::string& text)
{
    fprintf(stderr, "zentrava-keystore: note: %s\n", printable(text).c_str());
}

// ---------------------------------------------------------------------------------------------
// Tables
// ---------------------------------------------------------------------------------------------

static std::vector<size_t> natural_widths(const std::vector<std::string>& headings,
                                          const std::vector<Row>& rows)
{
    std::vector<size_t> widths;
    for (size_t column = 0; column + 1 < headings.size(); ++column) {
        size_t width = width_of(headings[column]);
        for (const Row& row : rows) {
            width = std::max(width, width_of(row.cells[column]));
        }
        widths.push_back(width);
    }
    return widths;
}

static size_t total_width(const std::vector<size_t>& widths)
{
    return std::accumulate(widths.begin(), widths.end(), GAP * (widths.size() - 1));
}

// Takes from the widest column, column by column, until the row fits.
static void narrow(std::vector<size_t>* widths, size_t limit)
{
    while (total_width(*widths) > limit) {
        size_t& widest = *std::max_element(widths->begin(), widths->end());
        if (widest <= NARROWEST_COLUMN) {
            return;
        }
        --widest;
    }
}

static std::string padded(const std::string& text, size_t width)
{
    return text + std::string(width - std::min(width, width_of(text)), ' ');
}

static std::string without_trailing_spaces(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

static void print_cells(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                        bool is_heading)
{
    std::vector<std::vector<std::string>> columns;
    size_t lines = 1;
    for (size_t column = 0; column < widths.size(); ++column) {
        columns.push_back(wrapped(cells[column], widths[column]));
        lines = std::max(lines, columns.back().size());
    }
    for (size_t line = 0; line < lines; ++line) {
        std::string text;
        for (size_t column = 0; column < widths.size(); ++column) {
            const std::string piece = line < columns[column].size() ? columns[column][line] : "";
            text += padded(piece, widths[column] + GAP);
        }
        text = without_trailing_spaces(text);
        printf("%s\n", is_heading ? styled(text, HEADING, stdout).c_str() : text.c_str());
    }
}

static void print_remark(const std::string& remark, Style style, size_t width)
{
    if (remark.empty()) {
        return;
    }
    for (const std::string& line : wrapped(remark, width - 2 * GAP)) {
        printf("%s%s\n", std::string(2 * GAP, ' ').c_str(), styled(line, style, stdout).c_str());
    }
}

static void print_beside(const std::vector<std::string>& headings, const std::vector<Row>& rows,
                         const std::vector<size_t>& widths)
{
    print_cells(headings, widths, true);
    for (const Row& row : rows) {
        std::vector<std::string> cells = row.cells;
        cells.push_back(row.remark);
        print_cells(cells, widths, false);
    }
}

static void print_below(const std::vector<std::string>& headings, const std::vector<Row>& rows,
                        const std::vector<size_t>& widths, size_t width)
{
    const auto has_remark = [](const Row& row) {
        return !row.remark.empty();
    };
    print_cells(headings, widths, true);
    if (std::any_of(rows.begin(), rows.end(), has_remark)) {
        print_remark(headings.back(), HEADING, width);
    }
    for (const Row& row : rows) {
        print_cells(row.cells, widths, false);
        print_remark(row.remark, FAINT, width);
    }
}

void print_table(const std::vector<std::string>& headings, const std::vector<Row>& rows)
{
    const size_t width = std::max(output_width(), USUAL_WIDTH / 2);
    std::vector<size_t> widths = natural_widths(headings, rows);
    const size_t taken = total_width(widths) + GAP;
    if (taken + NARROWEST_REMARKS <= width) {
        widths.push_back(width - taken);
        print_beside(headings, rows, widths);
    } else {
        narrow(&widths, width);
        print_below(headings, rows, widths, width);
    }
}
