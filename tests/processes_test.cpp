// Several processes that write the same store at the same time.
#include "tests/support/child_process.h"
#include "tests/support/deadline.h"
#include "tests/support/in_memory.h"
#include "tests/support/pauses.h"
#include "tests/support/plain_records.h"
#include "tests/support/store_directory.h"
#include "tests/support/system_calls.h"
#include "tests/support/writing_operations.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

const int WRITERS = 8;
const int WRITES = 200; // of each writer

// A writer's program: write number i is always the same, on keys of its own.
struct Write {
    std::string file;
    std::string key_name;
    std::string key; // empty when the write deletes
};

std::string key_of(int writer, int i)
{
    std::string key = std::to_string(writer) + "0" + std::to_string(i);
    return key + std::string(64 - key.size(), 'a');
}

// Out of five writes, one adds to each file, one copies, one replaces, one deletes what was added
// to the public file.
Write write_number(int writer, int i)
{
    const std::string name = std::to_string(writer) + "_" + std::to_string(i - i % 5);
    switch (i % 5) {
    case 0:
        return {PRIVATE_FILE, "private" + name, key_of(writer, i)};
    case 1:
        return {PUBLIC_FILE, "public" + name, key_of(writer, i)};
    case 2:
        return {PRIVATE_FILE, "copy" + name, key_of(writer, i - 2)};
    case 3:
        return {PRIVATE_FILE, "private" + name, key_of(writer, i)};
    default:
        return {PUBLIC_FILE, "public" + name, ""};
    }
}

// Whether the write came about.
bool carry_out(int writer, int i)
{
    const Write write = write_number(writer, i);
    const bool is_private = write.file == PRIVATE_FILE;
    const std::string name = write_number(writer, i - i % 5).key_name;
    switch (i % 5) {
    case 2:
        return copy_private_key(DEVICE_UID, name.c_str(), write.key_name.c_str()) == 0;
    case 3: // a replacement reports a failure
        return add_nonvolatile_based_key(DEVICE_UID, write.key_name.c_str(), write.key.c_str(),
                                         nullptr, is_private, true) == 1;
    case 4:
        return delete_key_by_key_type(DEVICE_UID, write.key_name.c_str()) == 0;
    default:
        return add_nonvolatile_based_key(DEVICE_UID, write.key_name.c_str(), write.key.c_str(),
                                         nullptr, is_private, false) == 0;
    }
}

// What so many writes of so many writers leave in the store.
Keys left_by(int writers, int writes)
{
    Keys keys;
    for (int writer = 0; writer < writers; ++writer) {
        for (int i = 0; i < writes; ++i) {
            const Write write = write_number(writer, i);
            if (write.key.empty()) {
                keys.erase({DEVICE_UID, write.key_name});
            } else {
                keys[{DEVICE_UID, write.key_name}] = write.key;
            }
        }
    }
    return keys;
}

// The store holds what they leave, and nothing else; of a large map, the difference is shown.
void expect_what_is_left_by(int writers, int writes)
{
    const Keys expected = left_by(writers, writes);
    const Keys found = distinct_keys_of_store();
    Keys lost;
    Keys strange;
    std::set_difference(expected.begin(), expected.end(), found.begin(), found.end(),
                        std::inserter(lost, lost.end()));
    std::set_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                        std::inserter(strange, strange.end()));
    EXPECT_EQ(lost, Keys());
    EXPECT_EQ(strange, Keys());
    EXPECT_EQ(expected.size(), static_cast<size_t>(writers * writes * 2 / 5));
}

class Processes : public StoreInMemory {
  protected:
    void TearDown() override
    {
        accept_system_calls();
        StoreInMemory::TearDown();
    }

    static std::set<std::string> files()
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(".")) {
            names.insert(entry.path().filename());
        }
        return names;
    }
};

TEST_F(Processes, LoseNoneOfTheirWritesAndMakeUniqueHandles)
{
    const Deadline deadline(250);
    std::vector<pid_t> writers;
    for (int writer = 0; writer < WRITERS; ++writer) {
        writers.push_back(start_child([writer] {
            int failures = 0;
            for (int i = 0; i < WRITES; ++i) {
                failures += carry_out(writer, i) ? 0 : 1;
            }
            return failures;
        }));
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(ending_of(writer).code, 0) << "of its writes failed";
    }
    expect_what_is_left_by(WRITERS, WRITES);
    EXPECT_EQ(files(), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
}

// Numbers that processes share; a number is written when the operation before it has returned.
struct Progress {
    volatile int completed[WRITERS];
};

class KilledProcesses : public Processes {
  protected:
    void SetUp() override
    {
        Processes::SetUp();
        progress_ = static_cast<Progress*>(mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                                MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(progress_, MAP_FAILED);
    }

    void TearDown() override
    {
        munmap(progress_, sizeof(Progress));
        Processes::TearDown();
    }

    // A writer that was killed in the middle of a write starts anew with the same one, which can
    // have come about already.
    pid_t start_writer(int writer)
    {
        return start_child([this, writer] {
            bool is_first = true;
            for (int i = progress_->completed[writer]; i < WRITES; ++i) {
                if (!carry_out(writer, i) && !is_first) {
                    return 1;
                }
                is_first = false;
                progress_->completed[writer] = i + 1;
            }
            return 0;
        });
    }

    int completed() const
    {
        return std::accumulate(std::begin(progress_->completed), std::end(progress_->completed), 0);
    }

    void wait_until_completed(int count) const
    {
        while (completed() < std::min(count, WRITERS * WRITES)) {
            std::this_thread::sleep_for(100us);
        }
    }

    // False when the writer had come to its end by itself.
    bool kill_and_start_anew(size_t writer)
    {
        kill(writers_[writer], SIGKILL);
        const Ending ending = ending_of(writers_[writer]);
        EXPECT_TRUE(ending.killed || ending.code == 0);
        writers_[writer] = start_writer(static_cast<int>(writer));
        return ending.killed;
    }

    Progress* progress_ = nullptr;
    std::vector<pid_t> writers_;
};

// A process is killed again and again, each time when the writers have got a little further.
TEST_F(KilledProcesses, LoseNoneOfTheWritesThatWereDone)
{
    const Deadline deadline(250);
    std::mt19937 random(20240229);
    std::uniform_int_distribution<size_t> any_writer(0, WRITERS - 1);
    std::uniform_int_distribution<int> any_advance(1, 12);
    std::uniform_int_distribution<int> any_delay(0, 3000);
    for (int writer = 0; writer < WRITERS; ++writer) {
        writers_.push_back(start_writer(writer));
    }
    int kills = 0;
    while (completed() < WRITERS * WRITES && !HasFailure()) {
        wait_until_completed(completed() + any_advance(random));
        std::this_thread::sleep_for(std::chrono::microseconds(any_delay(random)));
        kills += kill_and_start_anew(any_writer(random)) ? 1 : 0;
    }
    for (const pid_t writer : writers_) {
        EXPECT_EQ(ending_of(writer).code, 0);
    }
    std::cout << kills << " kills\n";
    EXPECT_GE(kills, 50);
    expect_what_is_left_by(WRITERS, WRITES);
}

// ---------------------------------------------------------------------------------------------
// The lock
// ---------------------------------------------------------------------------------------------

uint32_t add(const char* key_name)
{
    return add_nonvolatile_based_key(DEVICE_UID, key_name, NEW_KEY.c_str(), nullptr, true, false);
}

bool holds(const std::string& file, const std::string& key_name)
{
    return read_file(file).find("<key_name>" + key_name + "</key_name>") != std::string::npos;
}

// A process that adds a key, and stops after each watched call until it is told to go on.
pid_t start_step_by_step(Scope scope)
{
    const pid_t process = start_child([scope] {
        after_each_system_call([] { raise(SIGSTOP); });
        system_calls_of([] { add("stopped"); }, scope);
        return 0;
    });
    int status = 0;
    waitpid(process, &status, WUNTRACED);
    EXPECT_TRUE(WIFSTOPPED(status));
    return process;
}

// False when the process has come to its end.
bool go_a_step(pid_t process)
{
    kill(process, SIGCONT);
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, WUNTRACED), process);
    return WIFSTOPPED(status);
}

// A process that has stopped in the middle of its save, with the lock.
pid_t start_and_stop_in_a_save()
{
    return start_step_by_step(Scope::SAVES);
}

TEST_F(Processes, WaitForTheOneThatIsSaving)
{
    const Deadline deadline(30);
    const pid_t saving = start_and_stop_in_a_save();
    const pid_t waiting = start_child([] { return add("waited"); });
    std::this_thread::sleep_for(300ms);
    int status = 0;
    EXPECT_EQ(waitpid(waiting, &status, WNOHANG), 0);
    EXPECT_FALSE(holds(PRIVATE_FILE, "waited"));

    while (go_a_step(saving)) {
    }
    EXPECT_EQ(ending_of(waiting).code, 0);
    EXPECT_TRUE(holds(PRIVATE_FILE, "stopped"));
    EXPECT_TRUE(holds(PRIVATE_FILE, "waited"));
}

TEST_F(Processes, GoOnWhenTheOneThatIsSavingDies)
{
    const Deadline deadline(30);
    const pid_t saving = start_and_stop_in_a_save();
    const pid_t waiting = start_child([] { return add("waited"); });
    std::this_thread::sleep_for(100ms);
    kill(saving, SIGKILL);
    EXPECT_TRUE(ending_of(saving).killed);
    EXPECT_EQ(ending_of(waiting).code, 0);
    EXPECT_FALSE(holds(PRIVATE_FILE, "stopped"));
    EXPECT_TRUE(holds(PRIVATE_FILE, "waited"));
    EXPECT_EQ(files(), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
}

// An operation's process ends by a signal at each of its calls; the next one never has to wait.
TEST_F(Processes, GetTheLockBackFromOneThatDiesWhereverItDies)
{
    const Deadline deadline(30);
    for (size_t point = 1;; ++point) {
        const Ending ending = run_in_child([&] {
            system_calls_of([] { add("dying"); }, Scope::EVERYTHING,
                            {point, Meddling::KILL_AFTER, 0});
            return 0;
        });
        EXPECT_EQ(add(("after" + std::to_string(point)).c_str()), 0u);
        if (!ending.killed) {
            EXPECT_GT(point, 20u);
            break;
        }
    }
}

// The mutex that stays locked inside a process is no other process's concern.
TEST_F(Processes, GetTheLockBackFromOneThatIsStuckWithAnUnreadableFile)
{
    const Deadline deadline(30);
    std::filesystem::remove(PUBLIC_FILE);
    const pid_t stuck = start_child([] { return delete_key_by_handle("1"); });
    std::this_thread::sleep_for(200ms);
    int status = 0;
    EXPECT_EQ(waitpid(stuck, &status, WNOHANG), 0);
    EXPECT_EQ(add("added"), 0u);
    kill(stuck, SIGKILL);
    EXPECT_TRUE(ending_of(stuck).killed);
}

TEST_F(Processes, WaitOnAfterASignalInterruptedTheirWaiting)
{
    const Deadline deadline(30);
    const pid_t saving = start_and_stop_in_a_save();
    const pid_t waiting = start_child([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {
        };
        sigaction(SIGUSR1, &action, nullptr); // without SA_RESTART
        return add("waited");
    });
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(20ms);
        if (i > 2) { // the handler is there by now
            kill(waiting, SIGUSR1);
        }
    }
    int status = 0;
    EXPECT_EQ(waitpid(waiting, &status, WNOHANG), 0);
    EXPECT_FALSE(holds(PRIVATE_FILE, "waited"));
    kill(saving, SIGKILL);
    ending_of(saving);
    EXPECT_EQ(ending_of(waiting).code, 0);
    EXPECT_TRUE(holds(PRIVATE_FILE, "waited"));
}

// ---------------------------------------------------------------------------------------------
// Without the lock
// ---------------------------------------------------------------------------------------------

TEST_F(Processes, WriteWithoutALockWhereTheFileSystemHasNone)
{
    for (const int error : {ENOLCK, EOPNOTSUPP, ENOSYS, EBADF}) {
        refuse_system_calls("flock", error);
        const std::string name = "added" + std::to_string(error);
        system_calls_of([&] { EXPECT_EQ(add(name.c_str()), 0u); });
        EXPECT_TRUE(holds(PRIVATE_FILE, name));
        EXPECT_EQ(files(), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
    }
}

TEST_F(Processes, WithoutALockKeepOutOfEachOthersSiblings)
{
    refuse_system_calls("flock", ENOLCK);
    const pid_t saving = start_step_by_step(Scope::EVERYTHING);
    const std::string sibling = std::string(PRIVATE_FILE) + ".saving." + std::to_string(saving);
    while (!std::filesystem::exists(sibling)) {
        ASSERT_TRUE(go_a_step(saving));
    }
    system_calls_of([] { EXPECT_EQ(add("added"), 0u); });
    EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
    EXPECT_TRUE(std::filesystem::exists(sibling));
    while (go_a_step(saving)) {
    }
    EXPECT_TRUE(holds(PRIVATE_FILE, "stopped")); // the last one wins
    EXPECT_EQ(files(), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
}

// Processes are numbered anew after each start of a device.
TEST_F(Processes, WithoutALockReplaceASiblingThatAKilledProcessOfTheSameNumberLeft)
{
    refuse_system_calls("flock", ENOLCK);
    write_file(std::string(PRIVATE_FILE) + ".saving." + std::to_string(getpid()), "half a docum");
    system_calls_of([] { EXPECT_EQ(add("added"), 0u); });
    EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
    EXPECT_EQ(files(), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
}

// ---------------------------------------------------------------------------------------------
// One store in several directories
// ---------------------------------------------------------------------------------------------

// A service and a tool have working directories of their own, with links to the store's files.
TEST_F(Processes, LoseNoneOfTheirWritesToAStoreThatSeveralDirectoriesLinkTo)
{
    const Deadline deadline(120);
    const int directories = 4;
    const int writes = 50;
    std::vector<pid_t> writers;
    for (int writer = 0; writer < directories; ++writer) {
        const std::string directory = "service" + std::to_string(writer);
        std::filesystem::create_directory(directory);
        for (const char* file : {PRIVATE_FILE, PUBLIC_FILE}) {
            std::filesystem::create_symlink(directory_ / file, directory + "/" + file);
        }
        writers.push_back(start_child([=] {
            int failures = chdir(directory.c_str());
            for (int i = 0; i < writes; ++i) {
                failures += carry_out(writer, i) ? 0 : 1;
            }
            return failures;
        }));
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(ending_of(writer).code, 0) << "of its writes failed";
    }
    expect_what_is_left_by(directories, writes);
}

// ---------------------------------------------------------------------------------------------
// Readers
// ---------------------------------------------------------------------------------------------

// Reads all the while until told to stop; ends with the number of times that something was missing.
int read_until_told(const volatile int* stop, volatile int* reads)
{
    int missing = 0;
    do {
        char key[65] = "";
        uint32_t length = sizeof key;
        missing += export_prv_key_in_clear_as_hex(DEVICE_UID, "private59", key, &length) == 0 &&
                           std::string(key) == std::string(64, '9')
                       ? 0
                       : 1;
        uint8_t bytes[32];
        uint32_t size = sizeof bytes;
        missing += get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), "private59", bytes,
                           &size) == 0 &&
                           bytes[31] == 0x99
                       ? 0
                       : 1;
        missing += contains_key(DEVICE_UID, "srk") ? 0 : 1;
        const Document document(xmlReadFile(PRIVATE_FILE, nullptr, 0));
        missing += document != nullptr ? 0 : 1;
        ++*reads;
    } while (*stop == 0);
    return missing > 0 ? 1 : 0;
}

TEST_F(Processes, NeverReadHalfAFileWhileAnotherOneWrites)
{
    const Deadline deadline(30);
    FilledStore().put_in_place();
    struct Shared {
        volatile int stop;
        volatile int reads[2];
    };
    Shared* shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::vector<pid_t> readers;
    for (volatile int& reads : shared->reads) {
        readers.push_back(start_child([&] { return read_until_told(&shared->stop, &reads); }));
    }
    const auto end = std::chrono::steady_clock::now() + 2s;
    int writes = 0;
    while (std::chrono::steady_clock::now() < end) {
        EXPECT_EQ(add("comes and goes"), 0u);
        EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "comes and goes"), 0u);
        writes += 2;
    }
    shared->stop = 1;
    for (const pid_t reader : readers) {
        EXPECT_EQ(ending_of(reader).code, 0) << "something was missing";
    }
    std::cout << writes << " writes, " << shared->reads[0] + shared->reads[1] << " reads\n";
    EXPECT_GE(writes, 10);
    EXPECT_GE(shared->reads[0], 10);
    EXPECT_GE(shared->reads[1], 10);
    munmap(shared, sizeof(Shared));
}

} // namespace
