// SPDX-License-Identifier: MIT
//
// Widths, headings and cells of tables.
#include "Table.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "CommandLine.hpp"
#include "Output.hpp"

namespace zelctl {

namespace {

// Of an object, and so columns of a table. The library's objects have fifteen at most.
std::size_t const most_members = 64;

// How many columns of a terminal the text takes: bytes that go on a character take none.
std::size_t width_of(std::string const& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

std::string heading_of(std::string const& key) {
    std::string text = key;
    std::transform(text.begin(), text.end(), text.begin(), [](char letter) {
        return letter == '_' ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    });
    return text;
}

struct Column {
    std::string key;
    std::size_t width;
    bool numbers;       // which stand to the right
    std::size_t digits; // behind the point
};

// How many digits stand behind the point. None where there is no point, or an exponent.
std::size_t digits_in(Json const& value) {
    std::string const text = value.is_number_float() ? json_line(value) : "";
    std::string::size_type const point = text.find('.');
    return text.find_first_not_of("-.0123456789") != std::string::npos || point == std::string::npos
               ? 0
               : text.size() - point - 1;
}

// With zeros at the end, so that the points of a column stand below each other.
std::string text_in(Column const& column, Json const& value) {
    std::size_t const digits = digits_in(value);
    return cell(value) + std::string(digits == 0 ? 0 : column.digits - digits, '0');
}

// What comes after the most is left to --json.
std::vector<Column> columns_of(std::vector<Json> const& objects) {
    std::vector<Column> columns;
    for (Json const& object : objects) {
        for (auto const& item : object.items()) {
            auto it = std::find_if(columns.begin(), columns.end(),
                                   [&](Column const& column) { return column.key == item.key(); });
            if (it == columns.end() && columns.size() == most_members)
                continue;
            if (it == columns.end())
                it = columns.insert(it, {item.key(), width_of(heading_of(item.key())), true, 0});
            it->digits = std::max(it->digits, digits_in(item.value()));
            it->numbers = it->numbers && (item.value().is_number() || item.value().is_null());
        }
    }
    return columns;
}

std::string aligned(std::string const& text, Column const& column, bool last) {
    std::string const gap(column.width - std::min(column.width, width_of(text)), ' ');
    return column.numbers ? gap + text : last ? text : text + gap;
}

} // namespace

std::string cell(Json const& value) {
    std::string text;
    if (value.is_null())
        return "-";
    if (value.is_string()) {
        text = value.get<std::string>();
    } else if (value.is_boolean()) {
        text = value.get<bool>() ? "yes" : "no";
    } else if (value.is_structured()) {
        for (auto const& item : value.items()) {
            text += text.empty() ? "" : ",";
            text += (value.is_object() ? item.key() + '=' : "") + cell(item.value());
        }
    } else {
        return json_line(value);
    }
    // A cell must stay one, also for what takes the columns apart.
    std::string shown;
    for (char const letter : text)
        shown += letter == '\t' ? "\\x09" : letter == '\n' ? "\\x0a" : std::string(1, letter);
    return shown.empty() ? "-" : printable(shown);
}

namespace {

// What reads values goes down by recursion, and finds a member by comparing it with each one before it.
// Looking through the line takes less time than having the parser ask at each value.
bool is_modest(std::string const& line) {
    std::size_t const deepest = 16;
    std::size_t members[deepest + 1] = {}; // of what is open, from the outside in
    std::size_t depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        char const letter = line[i];
        if (letter == '"') {
            in_string = !in_string;
        } else if (in_string) {
            i += letter == '\\' ? 1 : 0;
        } else if (letter == '{' || letter == '[') {
            if (++depth > deepest)
                return false;
            members[depth] = 0;
        } else if (letter == '}' || letter == ']') {
            depth -= depth > 0 ? 1 : 0;
        } else if (letter == ':' && ++members[depth] > most_members) {
            return false;
        }
    }
    return true;
}

} // namespace

Json object_in(std::string const& line) {
    Json object = is_modest(line) ? Json::parse(line, nullptr, false) : Json();
    if (!object.is_object())
        object = nullptr;
    return object;
}

std::string json_line(Json const& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

namespace {

std::string styled(Output const& output, char const* style, std::string const& text) {
    char const* const no_color = std::getenv("NO_COLOR");
    bool const plain = !output.screen() || (no_color && *no_color != '\0');
    return plain ? text : style + text + "\x1b[0m";
}

} // namespace

std::string heading(Output const& output, std::string const& text) {
    return styled(output, "\x1b[1m", text);
}

std::string alarming(Output const& output, std::string const& text) {
    return styled(output, "\x1b[1;31m", text);
}

std::vector<std::string> table_lines(std::vector<Json> const& objects, bool align) {
    std::vector<Column> columns = columns_of(objects);
    if (columns.empty())
        return {};
    std::vector<std::vector<std::string>> rows(1);
    for (Column const& column : columns)
        rows[0].push_back(heading_of(column.key));
    for (Json const& object : objects) {
        rows.emplace_back();
        for (Column& column : columns) {
            auto const it = object.find(column.key);
            rows.back().push_back(it == object.end() ? "-" : text_in(column, *it));
            column.width = std::max(column.width, width_of(rows.back().back()));
        }
    }
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (std::vector<std::string> const& row : rows) {
        lines.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i) {
            bool const last = i + 1 == row.size();
            lines.back() += align ? aligned(row[i], columns[i], last) : row[i];
            lines.back() += last ? "" : align ? "  " : "\t";
        }
    }
    return lines;
}

void print_table(Output& output, Options const& options, std::vector<Json> const& objects) {
    if (options.json) {
        for (Json const& object : objects)
            output.line(json_line(object));
        return;
    }
    std::vector<std::string> const lines = table_lines(objects, output.terminal() || options.table);
    bool const plain = !lines.empty() && lines[0] == "LINE"; // what a process has said needs no heading
    for (std::string const& line : lines) {
        bool const first = &line == lines.data();
        if (!first || !plain)
            output.own_line(first ? heading(output, line) : line);
    }
}

} // namespace zelctl
