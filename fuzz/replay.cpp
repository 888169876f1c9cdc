// Calls a fuzz target once for each file of a directory: its corpus as a test, without libFuzzer.

#include "target.h"

#include <filesystem>
#include <fstream>
#include <iterator>

static Bytes content_of(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "Usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        files.push_back(std::filesystem::absolute(entry.path()));
    }
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files) {
        fprintf(stderr, "%s\n", file.c_str()); // the last one named is the one that failed
        const Bytes content = content_of(file);
        LLVMFuzzerTestOneInput(content.data(), content.size());
    }
    fprintf(stderr, "%zu files\n", files.size());
    return files.empty() ? 1 : 0;
}
