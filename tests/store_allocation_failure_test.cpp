// Every operation of the key store while memory runs out: at the first allocation of the process,
// at the second and so on until the operation needs no more. One allocation fails, or all from
// there on. Whatever happens, the store is what it was, or what the operation makes of it when
// there is memory enough.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "tests/support/deadline.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/printed.h"
#include "tests/support/process_lock.h"
#include "tests/support/store_directory.h"
#include "tests/support/volatile_tree.h"
#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

// Here nothing waits, neither for the end of a pause nor for the disk.
extern "C" {
unsigned int sleep(unsigned int)
{
    return 0;
}

int __wrap_fsync(int fd);

int __wrap_fsync(int)
{
    return 0;
}
}

namespace {

const std::string KEY(64, 'a');
const std::string OTHER_KEY(64, 'b');
const char* const METADATA = "new <metadata> & \r more";

// What the operations below say when they fail, whatever the reason.
const std::set<std::string> MESSAGES = {
    "[add_nonvolatile_based_key] error: could not add a key record",
    "[add_nonvolatile_based_key] error: could not get new key handle",
    "[add_nonvolatile_based_key] error: could not parse file key_contents_prv.xml",
    "[add_nonvolatile_based_key] error: could not parse file key_contents_pub.xml",
    "[add_nonvolatile_based_key] error: could not replace key",
    "[add_nonvolatile_based_key] error: could not save file key_contents_prv.xml",
    "[add_nonvolatile_based_key] error: could not save file key_contents_pub.xml",
    "[add_nonvolatile_based_key] error: could retrieve root element",
    "[add_volatile_key] Failed to retrieve Temporary Key Tree root node!",
    "[add_volatile_key] error: could not add a key record",
    "[add_volatile_key] error: could not get new key handle",
    "[copy_prv_key] error: could not add a key record",
    "[copy_prv_key] error: could not get new key handle",
    "[copy_prv_key] error: could not parse file key_contents_prv.xml",
    "[copy_prv_key] error: could not save file key_contents_prv.xml",
    "[copy_prv_key] error: no key with found with  uid=0123456789abcdef0123456789abcdef; key "
    "name=missing",
    "[delete_key_by_handle] error: could not save file key_contents_prv.xml",
    "[delete_key_by_handle] error: could not save file key_contents_pub.xml",
    "[delete_key_by_key_type] error: could not parse file key_contents_prv.xml",
    "[delete_key_by_key_type] error: could not parse file key_contents_pub.xml",
    "[delete_key_by_key_type] error: could not save file key_contents_prv.xml",
    "[delete_key_by_key_type] error: could not save file key_contents_pub.xml",
    "[export_prv_key_in_clear_as_hex] error: could not parse file (null)",
    "[get_key] error: can't find key",
    "[get_key] error: could not parse file key_contents_prv.xml",
    "[get_key] error: could not parse file key_contents_pub.xml",
    "[get_key_handle] error: could not parse file key_contents_prv.xml",
    "[get_key_handle] error: could not parse file key_contents_pub.xml",
    "[key_driver._prv_keyfile_contains_key(uid, key)] error: could not parse file "
    "key_contents_prv.xml",
    "[key_driver.set_new_srk_key_data_for_uid] error: could not parse file key_contents_prv.xml",
    "[key_driver.set_new_srk_key_data_for_uid] error: could not replace key",
    "[key_driver.set_new_srk_key_data_for_uid] error: could not save file key_contents_prv.xml",
    "[read_public_key_as_hex] error: could not parse file (null)",
    "error: Cannot add key for uid 0x0123456789abcdef0123456789abcdef and key name old! Key with "
    "same uid and key_name already exists",
    "error: Cannot add key for uid 0x0123456789abcdef0123456789abcdef and key name volatile! Key "
    "with same uid and key_name already exists",
    "error: can't find key",
    "error: can't find key with handle 2",
    "error: can't find key with handle 20",
    "error: could not parse file key_contents_prv.xml",
    "error: could not parse file key_contents_pub.xml",
};

const pthread_mutex_t PLAIN_MUTEX = PTHREAD_MUTEX_INITIALIZER;
const pthread_mutex_t CHECKING_MUTEX = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

// What an operation hands out. The buffers take no memory from the heap.
struct HandedOut {
    char handle[16];
    char text[128];
    uint32_t length;
};
HandedOut out;

enum Special {
    NOTHING_SPECIAL,
    KEEPS_MUTEX, // when a file cannot be read
    NO_TREE      // there is no volatile tree beforehand
};

struct Operation {
    const char* name;
    uint32_t (*run)();
    uint32_t result; // when there is memory enough
    Special special;
};

uint32_t replace(const char* key_name, const char* metadata)
{
    return add_nonvolatile_based_key(DEVICE_UID, key_name, OTHER_KEY.c_str(), metadata, true, true);
}

uint32_t add_named_volatile(const char* key_name)
{
    return add_volatile_based_key(DEVICE_UID, key_name, KEY.c_str(), METADATA, out.handle,
                                  sizeof out.handle);
}

uint32_t add_to_file(const char* key_name, bool is_private)
{
    return add_nonvolatile_based_key(DEVICE_UID, key_name, KEY.c_str(), METADATA, is_private,
                                     false);
}

const Operation OPERATIONS[] = {
    {"GetKeyHandle",
     [] {
         return get_key_handle(DEVICE_UID, "old", out.text, sizeof out.text, out.handle,
                               sizeof out.handle);
     },
     0, NOTHING_SPECIAL},
    {"GetKey",
     [] {
         return get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), "old",
                        reinterpret_cast<uint8_t*>(out.text), &out.length);
     },
     0, NOTHING_SPECIAL},
    {"AddVolatileKey", [] { return add_volatile_key(KEY.c_str(), out.handle, sizeof out.handle); },
     0, NOTHING_SPECIAL},
    {"AddVolatileBasedKey", [] { return add_named_volatile("new"); }, 0, NOTHING_SPECIAL},
    {"AddFirstVolatileKey",
     [] { return add_volatile_key(KEY.c_str(), out.handle, sizeof out.handle); }, 0, NO_TREE},
    {"AddFirstVolatileBasedKey", [] { return add_named_volatile("new"); }, 0, NO_TREE},
    {"AddFirstToPrivateFile", [] { return add_to_file("new", true); }, 0, NO_TREE},
    {"AddVolatileBasedKeyTwice", [] { return add_named_volatile("volatile"); }, 1, NOTHING_SPECIAL},
    {"AddToPrivateFile", [] { return add_to_file("new", true); }, 0, NOTHING_SPECIAL},
    {"AddToPublicFile", [] { return add_to_file("new", false); }, 0, NOTHING_SPECIAL},
    {"AddTwice", [] { return add_to_file("old", true); }, 1, NOTHING_SPECIAL},
    {"Replace", [] { return replace("old", METADATA); }, 1, NOTHING_SPECIAL},
    {"ReplaceInRecordWithoutKey", [] { return replace("bare", METADATA); }, 1, NOTHING_SPECIAL},
    {"ReplaceAndEmptyMetadata", [] { return replace("old", ""); }, 1, NOTHING_SPECIAL},
    {"AddCrk", [] { return add_crk(DEVICE_UID, KEY.c_str(), METADATA); }, 0, NOTHING_SPECIAL},
    {"AddCsk", [] { return add_csk(DEVICE_UID, KEY.c_str(), nullptr); }, 0, NOTHING_SPECIAL},
    {"DeleteVolatileKeyByHandle", [] { return delete_key_by_handle("15"); }, 0, KEEPS_MUTEX},
    {"DeleteFromPublicFileByHandle", [] { return delete_key_by_handle("20"); }, 0, KEEPS_MUTEX},
    {"DeleteFromPrivateFileByHandle", [] { return delete_key_by_handle("2"); }, 0, KEEPS_MUTEX},
    {"DeleteFromPrivateFileByName", [] { return delete_key_by_key_type(DEVICE_UID, "old"); }, 0,
     NOTHING_SPECIAL},
    {"DeleteFromPublicFileByName", [] { return delete_key_by_key_type(DEVICE_UID, "public"); }, 0,
     NOTHING_SPECIAL},
    {"DeleteVolatileKeyByName", [] { return delete_key_by_key_type(DEVICE_UID, "volatile"); }, 1,
     NOTHING_SPECIAL},
    {"DeleteMissingKeyByName", [] { return delete_key_by_key_type(DEVICE_UID, "missing"); }, 1,
     NOTHING_SPECIAL},
    {"DeleteCrk", [] { return delete_crk("another"); }, 0, NOTHING_SPECIAL},
    {"Copy", [] { return copy_private_key(DEVICE_UID, "old", "copy"); }, 0, NOTHING_SPECIAL},
    {"CopyMissingKey", [] { return copy_private_key(DEVICE_UID, "missing", "copy"); }, 1,
     NOTHING_SPECIAL},
    {"Export",
     [] { return export_prv_key_in_clear_as_hex(DEVICE_UID, "old", out.text, &out.length); }, 0,
     NOTHING_SPECIAL},
    {"ReadPublicKey",
     [] { return read_public_key_as_hex(DEVICE_UID, "public", out.text, &out.length); }, 0,
     NOTHING_SPECIAL},
    {"OverwriteSrk", [] { return set_new_srk_key_data_for_uid(DEVICE_UID, "2"); }, 0,
     NOTHING_SPECIAL},
    {"ContainsKey", [] { return static_cast<uint32_t>(contains_key(DEVICE_UID, "old")); }, 1,
     NOTHING_SPECIAL},
    {"ContainsCrk", [] { return static_cast<uint32_t>(contains_crk("another")); }, 1,
     NOTHING_SPECIAL},
    {"ContainsCsk", [] { return static_cast<uint32_t>(contains_csk("another")); }, 1,
     NOTHING_SPECIAL},
};

// Of everything that a file can hold, so that nothing can get lost unseen, and formatted as libxml2
// does it, so that a file that is saved unchanged stays the same.
const std::string PRIVATE_CONTENT =
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<?prolog data?>\n<!-- comment -->\n"
    "<!DOCTYPE keys>\n"
    "<keys kind=\"private &amp; more\">text<!-- comment --><?pi data?>\n" +
    record(DEVICE_UID, "srk", "1", std::string(64, '1'), "root &amp; more") +
    record(DEVICE_UID, "old", "2", std::string(64, '2'), "old &#13; metadata \xE9") +
    "<key_content><uid>" + DEVICE_UID + "</uid><key_name>bare</key_name></key_content>\n" +
    record(DEVICE_UID, "section", "3", "<![CDATA[" + std::string(64, '3') + "]]>") +
    record("another", "crk", "4", std::string(64, '4')) +
    record("another", "tmp_client_session_key", "30", std::string(64, '5')) +
    "<element attribute=\"\"/></keys>\n<!-- end -->\n";
const std::string PUBLIC_CONTENT = "<?xml version=\"1.0\"?>\n<keys>" +
                                   record(DEVICE_UID, "public", "20", std::string(64, '6'), "m") +
                                   "</keys>\n";

struct Store {
    std::string private_file;
    std::string public_file;
    std::vector<Children> tree;

    bool operator==(const Store& other) const
    {
        return private_file == other.private_file && public_file == other.public_file &&
               tree == other.tree;
    }
};

std::ostream& operator<<(std::ostream& stream, const Store& store)
{
    return stream << "private file:\n"
                  << store.private_file << "\npublic file:\n"
                  << store.public_file << "\nvolatile tree:\n"
                  << testing::PrintToString(store.tree);
}

Store present_store()
{
    return {read_file(PRIVATE_FILE), read_file(PUBLIC_FILE), volatile_records()};
}

// The memory that the volatile tree takes.
std::set<const void*> blocks_of(const xmlNode* node)
{
    std::set<const void*> blocks;
    for (; node != nullptr; node = node->next) {
        blocks.merge(std::set<const void*>{node, node->name, node->content});
        blocks.merge(blocks_of(node->children));
    }
    return blocks;
}

struct Attempt {
    uint32_t result;
    std::string printed;
    HandedOut handed_out;
    Store store;
    Allocations made;
    std::vector<size_t> lost; // the sizes of the blocks
};

// What the C library asks for when it opens a stream.
size_t size_of_stream()
{
    FILE* stream = nullptr;
    const Allocations made = allocations_of([&] { stream = fopen("/dev/null", "w"); });
    fclose(stream);
    return made.requested.at(0);
}

// The sizes of the blocks that are neither free nor part of the volatile tree, less what libxml2
// loses when it runs out of memory while it opens a file: to read, what its decompressor has, and
// to write, the stream. These are freed here.
std::vector<size_t> take_back_losses(const std::vector<Block>& left)
{
    const std::set<const void*> tree = blocks_of(tmpTree_rootNode);
    std::vector<size_t> lost;
    for (const Block& block : left) {
        if (is_block_of(block, "liblzma")) {
            free(block.address);
        } else if (is_block_of(block, "libc.so") && block.size == size_of_stream()) {
            fclose(static_cast<FILE*>(block.address));
        } else if (tree.count(block.address) == 0) {
            lost.push_back(block.size);
        }
    }
    return lost;
}

// libxml2 without memory for its own converters takes the C library's, which loads one for the store
// files' encoding and keeps it. Here that is done beforehand.
void keep_converter_loaded()
{
    static const iconv_t converter = iconv_open("UTF-8", "ISO-8859-1");
    ASSERT_NE(converter, reinterpret_cast<iconv_t>(-1));
}

std::string name_of(Failing failing)
{
    return failing == Failing::ONE_ALLOCATION ? "OneFails" : "AllFailFromThereOn";
}

} // namespace

class MemoryShortage : public StoreDirectory,
                       public testing::WithParamInterface<std::tuple<Operation, Failing>> {
  protected:
    void SetUp() override
    {
        // The store is put in place some ten thousand times: that is too much for a disk.
        if (access("/dev/shm", W_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 0);
        }
        StoreDirectory::SetUp();
        printed_by([] { puts(""); }); // standard output has its buffer from here on
        keep_converter_loaded();
        put_store_in_place();
        before_ = present_store();
        enough_ = attempt(NO_ALLOCATION);
        ASSERT_EQ(enough_.result, operation().result);
    }

    void TearDown() override
    {
        empty_volatile_tree();
        StoreDirectory::TearDown();
    }

    static Operation operation()
    {
        return std::get<0>(GetParam());
    }

    virtual std::string private_content() const
    {
        return PRIVATE_CONTENT;
    }

    void put_store_in_place() const
    {
        write_file(PRIVATE_FILE, private_content());
        write_file(PUBLIC_FILE, PUBLIC_CONTENT);
        empty_volatile_tree();
        if (operation().special != NO_TREE) {
            append_record(getTmpTreeRootNode(), {DEVICE_UID, "volatile", "15", "v", "m"});
        }
        out = {};
        out.length = sizeof out.text;
    }

    // The parser's own memory comes and goes within the attempt. Only where the volatile root is
    // made first, the parser is ready beforehand: one that is not is not cleaned up either, and
    // remembers its last error.
    Attempt attempt(unsigned int k) const
    {
        put_store_in_place();
        // An operation that keeps the mutex goes on to take it again: let it.
        lock = operation().special == KEEPS_MUTEX ? CHECKING_MUTEX : PLAIN_MUTEX;
        xmlCleanupParser();
        if (operation().special == NO_TREE) {
            xmlInitParser();
        }
        Attempt attempt = {};
        attempt.printed = printed_by([&] {
            attempt.made = failing_allocation(
                k,
                [&] {
                    attempt.result = operation().run();
                    xmlCleanupParser();
                },
                std::get<1>(GetParam()));
        });
        attempt.lost = take_back_losses(attempt.made.left);
        attempt.handed_out = out;
        attempt.store = present_store();
        return attempt;
    }

    // Looks at what comes of it when the first allocation fails, when the second one does, and so
    // on until there is enough.
    template <typename Look> void run_short(Look look)
    {
        const Deadline deadline(250);
        for (unsigned int k = 1; !HasFailure(); ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " fails");
            const Attempt tried = attempt(k);
            look(tried);
            if (!tried.made.any_failed) {
                return;
            }
        }
    }

    Store before_;
    Attempt enough_;
};

const auto BOTH_WAYS = testing::Values(Failing::ONE_ALLOCATION, Failing::ALL_FROM_THERE_ON);

static std::string name_of_test(const testing::TestParamInfo<MemoryShortage::ParamType>& test)
{
    return std::string(std::get<0>(test.param).name) + name_of(std::get<1>(test.param));
}

static Operation operation_named(const std::string& name)
{
    return *std::find_if(std::begin(OPERATIONS), std::end(OPERATIONS),
                         [&](const Operation& operation) { return operation.name == name; });
}

INSTANTIATE_TEST_SUITE_P(In, MemoryShortage,
                         testing::Combine(testing::ValuesIn(OPERATIONS), BOTH_WAYS), name_of_test);

TEST_P(MemoryShortage, LeavesTheStoreAsItWasOrAsItIsToBe)
{
    run_short([&](const Attempt& tried) {
        EXPECT_TRUE(tried.result == 0 || tried.result == 1) << tried.result;
        EXPECT_TRUE(tried.store == enough_.store || (tried.store == before_ && tried.result == 1))
            << "result " << tried.result << ", printed " << tried.printed << tried.store;
    });
}

TEST_P(MemoryShortage, MakesAWellFormedFileWhenThereIsEnough)
{
    EXPECT_TRUE(is_well_formed(PRIVATE_FILE));
    EXPECT_TRUE(is_well_formed(PUBLIC_FILE));
}

TEST_P(MemoryShortage, HandsOutEverythingOrFails)
{
    run_short([&](const Attempt& tried) {
        if (tried.result == 0 && operation().result == 0) {
            EXPECT_STREQ(tried.handed_out.handle, enough_.handed_out.handle);
            EXPECT_STREQ(tried.handed_out.text, enough_.handed_out.text);
            EXPECT_EQ(tried.handed_out.length, enough_.handed_out.length);
        }
    });
}

TEST_P(MemoryShortage, SaysSoWhenItFails)
{
    run_short([&](const Attempt& tried) {
        if (tried.result != enough_.result || !(tried.store == enough_.store)) {
            EXPECT_NE(tried.printed, "");
        }
        std::istringstream lines(tried.printed);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(MESSAGES.count(line), 1u) << line;
        }
    });
}

TEST_P(MemoryShortage, GivesEverythingBack)
{
    run_short([](const Attempt& tried) {
        EXPECT_EQ(tried.lost, std::vector<size_t>());
        if (operation().special != KEEPS_MUTEX ||
            tried.printed.find("could not parse") == std::string::npos) {
            EXPECT_EQ(pthread_mutex_trylock(&lock), 0);
            pthread_mutex_unlock(&lock);
        }
        EXPECT_FALSE(process_lock_is_held());
        const auto files = std::filesystem::directory_iterator(".");
        EXPECT_EQ(std::distance(begin(files), end(files)), 2);
    });
}

// Two texts that the store's operations always give together.
TEST(MemoryShortageOfARecord, LeavesItWholeOrLeavesItOut)
{
    empty_volatile_tree();
    xmlNodePtr root = getTmpTreeRootNode();
    bool appended = false;
    for (unsigned int k = 1; !appended; ++k) {
        const Allocations made = failing_allocation(k, [&] {
            appended = append_record(root, {nullptr, "name", "7", "key", ""});
        });
        EXPECT_EQ(appended, !made.any_failed);
        EXPECT_EQ(root->children != nullptr, appended);
    }
    const Children whole = {{"key_name", "name"}, {"handle", "7"}, {"key", "key"}};
    EXPECT_EQ(volatile_records(), std::vector<Children>{whole});
    empty_volatile_tree();
}

// ---- Files with entities ----

// libxml2 does not say so when it loses an entity for want of memory: it takes the file for a
// malformed one. Then a new handle may be one that exists already, since a file that cannot be read
// does not count. But no record gets lost.
class MemoryShortageWithEntities : public MemoryShortage {
  protected:
    std::string private_content() const override
    {
        std::string content = PRIVATE_CONTENT;
        content.replace(content.find("<!DOCTYPE keys>"), 15,
                        "<!DOCTYPE keys [\n<!ENTITY e \"entity\">\n]>");
        return content.replace(content.find("root &amp; more"), 15, "root &e; more");
    }

    static std::string without_handles(std::string text)
    {
        for (size_t start = text.find("<handle>"); start != std::string::npos;
             start = text.find("<handle>")) {
            text.erase(start, text.find("</handle>", start) + 9 - start);
        }
        return text;
    }
};

INSTANTIATE_TEST_SUITE_P(
    In, MemoryShortageWithEntities,
    testing::Combine(testing::Values(operation_named("AddToPrivateFile"),
                                     operation_named("Replace"), operation_named("Copy"),
                                     operation_named("OverwriteSrk"), operation_named("DeleteCrk")),
                     BOTH_WAYS),
    name_of_test);

TEST_P(MemoryShortageWithEntities, LeavesEveryRecordAsItWasOrAsItIsToBe)
{
    run_short([&](const Attempt& tried) {
        const std::string file = without_handles(tried.store.private_file);
        EXPECT_TRUE(file == without_handles(before_.private_file) ||
                    file == without_handles(enough_.store.private_file))
            << tried.store;
    });
}
