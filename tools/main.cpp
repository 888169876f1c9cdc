// zentrava-keystore: provisions, inspects and checks key stores.

#include "command_line.h"
#include "text_output.h"
#include "wiping_heap.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <new>

// The library's units find a store in the working directory, and so does the tool.
static std::optional<Failure> enter_directory(Request* request)
{
    Common& common = request->common;
    common.start_directory = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (common.directory.empty()) {
        return std::nullopt;
    }
    if (request->makes_directory && mkdir(common.directory.c_str(), S_IRWXU) != 0 &&
        errno != EEXIST) { // then entering it tells whether it is a directory
        return Failure{INPUT_OUTPUT, common.directory, 0,
                       std::string("cannot be made: ") + strerror(errno),
                       "see to its name and to the permissions of the directory that it goes to"};
    }
    if (chdir(common.directory.c_str()) != 0) {
        return Failure{INPUT_OUTPUT, common.directory, 0,
                       std::string("cannot be entered: ") + strerror(errno),
                       "name the store's directory with --dir"};
    }
    return std::nullopt;
}

static std::optional<Failure> run(int argc, char** argv)
{
    Request request = {};
    if (std::optional<Failure> failure = parse_command_line(argc, argv, &request)) {
        return failure;
    }
    if (!request.run) {
        return std::nullopt;
    }
    if (std::optional<Failure> failure = enter_directory(&request)) {
        return failure;
    }
    return request.run(request.common);
}

static std::optional<Failure> run_without_exceptions(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return Failure{FAILED, "", 0, "there is not enough memory; nothing was changed",
                       "free some memory"};
    } catch (const std::exception& exception) {
        return Failure{FAILED, "", 0, exception.what(), ""};
    }
}

int main(int argc, char** argv)
{
    begin_wiping_heap();
    std::optional<Failure> failure = run_without_exceptions(argc, argv);
    if (!failure && (fflush(stdout) != 0 || ferror(stdout) != 0)) {
        failure = Failure{INPUT_OUTPUT, "standard output", 0,
                          std::string("cannot be written: ") + strerror(errno), ""};
    }
    if (failure) {
        report(*failure);
    }
    wipe_stack();
    return failure ? failure->code : DONE;
}
