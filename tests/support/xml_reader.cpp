#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

namespace {

// Answers each file name on standard input by the number of its elements and a line for each of
// them: depth, name, text in hexadecimal. A file that is not well-formed is answered by 0.
const char* const READER = R"(
import sys
import xml.etree.ElementTree

def lines_of(element, depth):
    yield f"{depth} {element.tag} {(element.text or '').encode().hex()}"
    for child in element:
        yield from lines_of(child, depth + 1)

for file_name in sys.stdin:
    try:
        lines = list(lines_of(xml.etree.ElementTree.parse(file_name.rstrip("\n")).getroot(), 0))
    except xml.etree.ElementTree.ParseError:
        lines = []
    print(len(lines), *lines, sep="\n", flush=True)
)";

// A reader that waits for file names. It ends with the program, whose end of the pipe is closed
// then.
struct Reader {
    FILE* requests;
    FILE* answers;
};

void become_reader(const int requests[2], const int answers[2])
{
    dup2(requests[0], STDIN_FILENO);
    dup2(answers[1], STDOUT_FILENO);
    for (const int fd : {requests[0], requests[1], answers[0], answers[1]}) {
        close(fd);
    }
    execlp("python3", "python3", "-I", "-c", READER, nullptr);
    _exit(127);
}

Reader start_reader()
{
    int requests[2];
    int answers[2];
    if (pipe(requests) != 0 || pipe(answers) != 0) {
        abort();
    }
    if (fork() == 0) {
        become_reader(requests, answers);
    }
    close(requests[0]);
    close(answers[1]);
    return {fdopen(requests[1], "w"), fdopen(answers[0], "r")};
}

std::string next_line(FILE* file)
{
    char* line = nullptr;
    size_t size = 0;
    const ssize_t length = getline(&line, &size, file);
    if (length <= 0) {
        fputs("the XML reader does not answer: is there a python3?\n", stderr);
        abort();
    }
    const std::string text(line, static_cast<size_t>(length) - 1);
    free(line);
    return text;
}

int value_of(char hex_digit)
{
    return hex_digit <= '9' ? hex_digit - '0' : hex_digit - 'a' + 10;
}

XmlElement element_of(const std::string& line)
{
    const size_t name = line.find(' ') + 1;
    const size_t text = line.rfind(' ') + 1;
    XmlElement element = {atoi(line.c_str()), line.substr(name, text - 1 - name), ""};
    for (size_t i = text; i < line.size(); i += 2) {
        element.text += static_cast<char>(value_of(line[i]) * 16 + value_of(line[i + 1]));
    }
    return element;
}

std::vector<XmlElement> elements_if_well_formed(const std::string& file_name)
{
    static const Reader reader = start_reader();
    // The reader stays in the directory in which it was started.
    fprintf(reader.requests, "%s\n", std::filesystem::absolute(file_name).c_str());
    fflush(reader.requests);
    std::vector<XmlElement> elements;
    for (int left = atoi(next_line(reader.answers).c_str()); left > 0; --left) {
        elements.push_back(element_of(next_line(reader.answers)));
    }
    return elements;
}

} // namespace

bool is_well_formed(const std::string& file_name)
{
    return !elements_if_well_formed(file_name).empty();
}

std::vector<XmlElement> elements_of(const std::string& file_name)
{
    std::vector<XmlElement> elements = elements_if_well_formed(file_name);
    EXPECT_FALSE(elements.empty()) << file_name << " is not well-formed";
    return elements;
}

std::vector<Children> records_of(const std::string& file_name)
{
    const std::vector<XmlElement> elements = elements_of(file_name);
    std::vector<Children> records;
    for (auto record = elements.begin(); record != elements.end(); ++record) {
        if (record->name != "key_content") {
            continue;
        }
        records.emplace_back();
        for (auto child = record + 1; child != elements.end() && child->depth > record->depth;
             ++child) {
            if (child->depth == record->depth + 1) {
                records.back().emplace_back(child->name, child->text);
            }
        }
    }
    return records;
}
