// Who may read and write the store's files, before, during and after a save; and files that are
// reached or kept in other ways than by a plain name in a directory of one's own.
#include "tests/support/access_control_list.h"
#include "tests/support/child_process.h"
#include "tests/support/pauses.h"
#include "tests/support/printed.h"
#include "tests/support/private_mounts.h"
#include "tests/support/store_directory.h"
#include "tests/support/system_calls.h"
#include "tests/support/writing_operations.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace {

const uid_t OWNER = 61001;
const gid_t GROUP = 62001;
const uid_t LISTED = 61002; // in an access control list
const uid_t STRANGER = 61003;

const std::string SIBLING = std::string(PRIVATE_FILE) + ".saving";
const std::string COULD_NOT_SAVE =
    "[add_nonvolatile_based_key] error: could not save file key_contents_prv.xml\n";

uint32_t add(const char* key_name)
{
    return add_nonvolatile_based_key(DEVICE_UID, key_name, NEW_KEY.c_str(), nullptr, true, false);
}

bool holds(const std::string& path, const std::string& key_name)
{
    return read_file(path).find("<key_name>" + key_name + "</key_name>") != std::string::npos;
}

struct stat status_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

std::set<std::string> names_in(const std::string& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename());
    }
    return names;
}

class SavePermissions : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        ASSERT_EQ(chmod(".", 0755), 0); // what counts is who may read the file itself
        FilledStore().put_in_place();
        umask_ = umask(022);
    }

    void TearDown() override
    {
        umask(umask_);
        accept_system_calls();
        after_each_system_call({});
        StoreDirectory::TearDown();
    }

    // A save that has to have replaced the file, as it does wherever nothing stands in the way.
    void save_by_renaming()
    {
        const ino_t inode = status_of(PRIVATE_FILE).st_ino;
        EXPECT_EQ(add("added"), 0u);
        EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
        EXPECT_NE(status_of(PRIVATE_FILE).st_ino, inode);
        EXPECT_FALSE(std::filesystem::exists(SIBLING));
    }

    static void expect_saved_in_place(const Ending& ending, ino_t inode)
    {
        EXPECT_EQ(ending.code, 0);
        EXPECT_EQ(ending.printed, "");
        EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
        EXPECT_EQ(status_of(PRIVATE_FILE).st_ino, inode);
        EXPECT_FALSE(std::filesystem::exists(SIBLING));
    }

  private:
    mode_t umask_ = 0;
};

class SavePermissionsAsRoot : public SavePermissions {
  protected:
    void SetUp() override
    {
        SavePermissions::SetUp();
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root, to act as several users";
        }
    }
};

// ---------------------------------------------------------------------------------------------
// What the file has before, it has afterwards
// ---------------------------------------------------------------------------------------------

TEST_F(SavePermissions, KeepTheModeWhateverTheUmask)
{
    for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
        for (const mode_t mode : {0600u, 0640u, 0644u, 0660u, 0664u, 0666u, 0604u, 0700u}) {
            SCOPED_TRACE(testing::Message() << std::oct << "mode " << mode << ", umask " << mask);
            FilledStore().put_in_place();
            ASSERT_EQ(chmod(PRIVATE_FILE, mode), 0);
            umask(mask);
            save_by_renaming();
            EXPECT_EQ(status_of(PRIVATE_FILE).st_mode & 07777, mode);
            umask(022);
        }
    }
}

TEST_F(SavePermissions, KeepExtendedAttributes)
{
    if (!set_attribute(PRIVATE_FILE, "user.label", "confidential")) {
        GTEST_SKIP() << "the file system has no extended attributes";
    }
    save_by_renaming();
    EXPECT_EQ(attribute(PRIVATE_FILE, "user.label"), "confidential");
}

TEST_F(SavePermissionsAsRoot, KeepOwnerAndGroup)
{
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0640), 0);
    save_by_renaming();
    const struct stat status = status_of(PRIVATE_FILE);
    EXPECT_EQ(status.st_uid, OWNER);
    EXPECT_EQ(status.st_gid, GROUP);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(SavePermissionsAsRoot, KeepTheGroupOfAFileOfOnesOwn)
{
    ASSERT_EQ(chown(PRIVATE_FILE, geteuid(), GROUP), 0);
    save_by_renaming();
    EXPECT_EQ(status_of(PRIVATE_FILE).st_gid, GROUP);
}

TEST_F(SavePermissionsAsRoot, KeepTheOwnerWithoutHisReadPermission)
{
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    for (const mode_t mode : {0060u, 0006u, 0000u, 0400u, 0444u}) {
        SCOPED_TRACE(mode);
        FilledStore().put_in_place();
        ASSERT_EQ(chmod(PRIVATE_FILE, mode), 0);
        save_by_renaming();
        EXPECT_EQ(status_of(PRIVATE_FILE).st_mode & 07777, mode);
        EXPECT_EQ(status_of(PRIVATE_FILE).st_uid, OWNER);
    }
}

TEST_F(SavePermissionsAsRoot, KeepTheAccessControlList)
{
    const std::string list = list_with_user(LISTED);
    if (!set_attribute(PRIVATE_FILE, ACCESS_LIST, list)) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    const mode_t mode = status_of(PRIVATE_FILE).st_mode;
    save_by_renaming();
    EXPECT_EQ(attribute(PRIVATE_FILE, ACCESS_LIST), list);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode, mode);
}

TEST_F(SavePermissionsAsRoot, TakeNothingFromTheDirectorysDefaultAccessControlList)
{
    if (!set_attribute(".", DEFAULT_LIST, list_with_user(LISTED))) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    ASSERT_EQ(chmod(PRIVATE_FILE, 0640), 0);
    save_by_renaming();
    EXPECT_EQ(attribute(PRIVATE_FILE, ACCESS_LIST), "");
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode & 07777, 0640u);
}

// ---------------------------------------------------------------------------------------------
// Who can read the sibling, at any moment
// ---------------------------------------------------------------------------------------------

struct Person {
    std::string name;
    uid_t user;
    gid_t group;
};

const std::vector<Person> PEOPLE = {
    {"the owner", OWNER, STRANGER},
    {"a member of the group", STRANGER, GROUP},
    {"a listed user", LISTED, LISTED},
    {"a stranger", STRANGER, STRANGER},
    {"a member of root's group", STRANGER, 0},
};

// Asks the kernel.
bool can_read(const Person& person, const std::string& path)
{
    setfsgid(person.group);
    setfsuid(person.user);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    setfsuid(0);
    setfsgid(0);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

std::set<std::string> readers_of(const std::string& path)
{
    std::set<std::string> readers;
    for (const Person& person : PEOPLE) {
        if (can_read(person, path)) {
            readers.insert(person.name);
        }
    }
    return readers;
}

class SiblingInSight : public SavePermissionsAsRoot {
  protected:
    void SetUp() override
    {
        SavePermissionsAsRoot::SetUp();
        if (geteuid() == 0) {
            ASSERT_EQ(setgroups(0, nullptr), 0); // the people are in one group each
            if (!set_attribute(".", DEFAULT_LIST, list_with_user(LISTED))) {
                GTEST_SKIP() << "the file system has no access control lists";
            }
            removexattr(".", DEFAULT_LIST);
        }
    }

    // Looks at the sibling after each call of a save; nobody who cannot read the file can read it.
    void watch_a_save()
    {
        const std::set<std::string> readers = readers_of(PRIVATE_FILE);
        size_t looks = 0;
        size_t looks_at_content = 0;
        after_each_system_call([&] {
            if (access(SIBLING.c_str(), F_OK) == 0) {
                ++looks;
                looks_at_content += status_of(SIBLING).st_size > 0 ? 1 : 0;
                for (const std::string& reader : readers_of(SIBLING)) {
                    EXPECT_EQ(readers.count(reader), 1u) << reader;
                }
            }
        });
        system_calls_of([&] { EXPECT_EQ(add("added"), 0u); }, Scope::SAVES);
        after_each_system_call({});
        EXPECT_GE(looks, 8u);
        EXPECT_GE(looks_at_content, 3u);
        EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
        EXPECT_EQ(readers_of(PRIVATE_FILE), readers);
    }
};

TEST_F(SiblingInSight, IsNeverReadableByMorePeopleThanTheFile)
{
    for (const mode_t mask : {0u, 022u}) {
        for (const bool is_inherited : {false, true}) {
            for (const bool is_listed : {false, true}) {
                for (const uid_t owner : {OWNER, 0u}) {
                    for (const mode_t mode : {0600u, 0640u, 0644u, 0660u, 0604u, 0400u}) {
                        SCOPED_TRACE(testing::Message()
                                     << std::oct << "mode " << mode << ", owner " << std::dec
                                     << owner << ", umask " << mask
                                     << (is_listed ? ", with a list" : "")
                                     << (is_inherited ? ", in a directory with a list" : ""));
                        umask(022);
                        std::filesystem::remove(PRIVATE_FILE);
                        FilledStore().put_in_place();
                        removexattr(".", DEFAULT_LIST);
                        ASSERT_EQ(chown(PRIVATE_FILE, owner, owner == 0 ? 0 : GROUP), 0);
                        ASSERT_EQ(chmod(PRIVATE_FILE, mode), 0);
                        if (is_listed) {
                            ASSERT_TRUE(
                                set_attribute(PRIVATE_FILE, ACCESS_LIST, list_with_user(LISTED)));
                        }
                        if (is_inherited) {
                            ASSERT_TRUE(set_attribute(".", DEFAULT_LIST, list_with_user(LISTED)));
                        }
                        umask(mask);
                        watch_a_save();
                    }
                }
            }
        }
    }
}

// A save that fails is over before it could show anything; a save that succeeds shows no more than
// the file did.
TEST_F(SiblingInSight, IsNeverReadableByMorePeopleWhicheverCallFails)
{
    ASSERT_TRUE(set_attribute(".", DEFAULT_LIST, list_with_user(LISTED)));
    const FilledStore store;
    for (const int error : {EIO, ENOSPC, EPERM}) {
        for (size_t point = 1; point < 40; ++point) {
            store.put_in_place();
            std::filesystem::remove(PRIVATE_FILE);
            removexattr(".", DEFAULT_LIST);
            store.put_in_place();
            ASSERT_TRUE(set_attribute(".", DEFAULT_LIST, list_with_user(LISTED)));
            ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
            ASSERT_EQ(chmod(PRIVATE_FILE, 0640), 0);
            const std::set<std::string> readers = readers_of(PRIVATE_FILE);
            std::set<std::string> seen;
            after_each_system_call([&] {
                for (const std::string& reader : readers_of(SIBLING)) {
                    seen.insert(reader);
                }
            });
            SystemCalls calls;
            printed_by([&] {
                calls = system_calls_of([&] { add("added"); }, Scope::SAVES,
                                        {point, Meddling::FAIL, error});
            });
            after_each_system_call({});
            if (calls.size() < point) {
                EXPECT_GT(point, 15u);
                break;
            }
            SCOPED_TRACE(testing::Message() << calls[point - 1].text() << ", error " << error);
            EXPECT_TRUE(std::includes(readers.begin(), readers.end(), seen.begin(), seen.end()))
                << testing::PrintToString(seen);
            EXPECT_EQ(readers_of(PRIVATE_FILE), readers);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Where permissions or the kind of file stand in the way
// ---------------------------------------------------------------------------------------------

TEST_F(SavePermissionsAsRoot, OverwriteInPlaceWhereTheOwnerCannotBeKept)
{
    ASSERT_EQ(chown(".", STRANGER, STRANGER), 0);
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0660), 0);
    const struct stat before = status_of(PRIVATE_FILE);
    expect_saved_in_place(run_as(STRANGER, GROUP, [] { return add("added"); }), before.st_ino);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_uid, OWNER);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode, before.st_mode);
}

TEST_F(SavePermissionsAsRoot, OverwriteInPlaceWhereTheGroupCannotBeKept)
{
    ASSERT_EQ(chown(PRIVATE_FILE, geteuid(), GROUP), 0);
    const ino_t inode = status_of(PRIVATE_FILE).st_ino;
    refuse_system_calls("fchown", EPERM);
    system_calls_of([&] { EXPECT_EQ(add("added"), 0u); }, Scope::SAVES);
    EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
    EXPECT_EQ(status_of(PRIVATE_FILE).st_ino, inode);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_gid, GROUP);
    EXPECT_FALSE(std::filesystem::exists(SIBLING));
}

// In a user namespace without a number for him, as a container has it for the users of its host.
TEST_F(SavePermissionsAsRoot, OverwriteInPlaceWhereTheOwnerHasNoNumber)
{
    ASSERT_EQ(chmod(".", 0777), 0);
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0666), 0);
    const struct stat before = status_of(PRIVATE_FILE);
    const int not_permitted = 125;
    const Ending ending = run_in_child([&] {
        if (unshare(CLONE_NEWUSER) != 0) {
            return not_permitted;
        }
        write_file("/proc/self/uid_map", "0 0 1");
        return static_cast<int>(add("added"));
    });
    if (ending.code == not_permitted) {
        GTEST_SKIP() << "a user namespace is not permitted here";
    }
    expect_saved_in_place(ending, before.st_ino);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_uid, OWNER);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode, before.st_mode);
}

TEST_F(SavePermissionsAsRoot, OverwriteInPlaceInADirectoryThatIsNotWritable)
{
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    const ino_t inode = status_of(PRIVATE_FILE).st_ino;
    expect_saved_in_place(run_as(OWNER, GROUP, [] { return add("added"); }), inode);
}

TEST_F(SavePermissionsAsRoot, OverwriteInPlaceInADirectoryWhereOnlyOwnersRename)
{
    ASSERT_EQ(chmod(".", 01777), 0);
    ASSERT_EQ(chown(PRIVATE_FILE, 0, GROUP), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0660), 0);
    const ino_t inode = status_of(PRIVATE_FILE).st_ino;
    expect_saved_in_place(run_as(STRANGER, GROUP, [] { return add("added"); }), inode);
}

TEST_F(SavePermissionsAsRoot, OverwriteAFileInPlaceThatIsAMountPoint)
{
    const Mount mount(PRIVATE_FILE, PRIVATE_FILE, "", MS_BIND, nullptr);
    if (!mount.is_there()) {
        GTEST_SKIP() << "mounting is not permitted here";
    }
    const ino_t inode = status_of(PRIVATE_FILE).st_ino;
    expect_saved_in_place(run_in_child([] { return add("added"); }), inode);
}

// An overlay makes its inode numbers up of more than 32 bits, which a 32-bit program only sees if
// it was built for large files.
TEST_F(SavePermissionsAsRoot, SaveWhereInodeNumbersAreLarge)
{
    for (const char* directory : {"lower", "upper", "work", "merged"}) {
        std::filesystem::create_directory(directory);
    }
    const Mount lower("none", "lower", "tmpfs", 0, "size=1m");
    const FilledStore store;
    write_file(std::string("lower/") + PRIVATE_FILE, store.private_content);
    write_file(std::string("lower/") + PUBLIC_FILE, store.public_content);
    const Mount overlay("none", "merged", "overlay", 0,
                        "lowerdir=lower,upperdir=upper,workdir=work,xino=on");
    if (!overlay.is_there()) {
        GTEST_SKIP() << "an overlay cannot be mounted here";
    }
    const Ending ending = run_in_child([] { return chdir("merged") == 0 ? add("added") : 125; });
    EXPECT_EQ(ending.code, 0);
    EXPECT_EQ(ending.printed, "");
    EXPECT_TRUE(holds(std::string("merged/") + PRIVATE_FILE, "added"));
}

TEST_F(SavePermissionsAsRoot, LetADirectoryThatIsNotReadableBeSavedInWithoutALock)
{
    ASSERT_EQ(chown(".", OWNER, GROUP), 0);
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    ASSERT_EQ(chmod(".", 0300), 0);
    const ino_t inode = status_of(PRIVATE_FILE).st_ino;
    const Ending ending = run_as(OWNER, GROUP, [] { return add("added"); });
    EXPECT_EQ(ending.code, 0);
    EXPECT_EQ(ending.printed, "");
    EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
    EXPECT_NE(status_of(PRIVATE_FILE).st_ino, inode);
    EXPECT_EQ(names_in("."), (std::set<std::string>{PRIVATE_FILE, PUBLIC_FILE}));
}

TEST_F(SavePermissionsAsRoot, LeaveAWriteProtectedFileAsItIs)
{
    ASSERT_EQ(chown(".", OWNER, GROUP), 0);
    ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0444), 0);
    const std::string content = read_file(PRIVATE_FILE);
    const struct stat before = status_of(PRIVATE_FILE);
    const Ending ending = run_as(OWNER, GROUP, [] { return add("added"); });
    EXPECT_EQ(ending.code, 1);
    EXPECT_EQ(ending.printed, COULD_NOT_SAVE);
    EXPECT_EQ(read_file(PRIVATE_FILE), content);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_ino, before.st_ino);
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode, before.st_mode);
    EXPECT_FALSE(std::filesystem::exists(SIBLING));
}

TEST_F(SavePermissions, OverwriteInPlaceWhereTheSiblingsNameWouldBeTooLong)
{
    const std::string target(NAME_MAX, 'x');
    std::filesystem::rename(PRIVATE_FILE, target);
    std::filesystem::create_symlink(target, PRIVATE_FILE);
    const ino_t inode = status_of(target).st_ino;
    EXPECT_EQ(add("added"), 0u);
    EXPECT_TRUE(holds(target, "added"));
    EXPECT_EQ(status_of(target).st_ino, inode);
}

// ---------------------------------------------------------------------------------------------
// Links
// ---------------------------------------------------------------------------------------------

struct Link {
    std::string name;
    std::string target; // where the file is; relative to the store's directory
    bool is_absolute;
};

std::ostream& operator<<(std::ostream& stream, const Link& link)
{
    return stream << link.name;
}

const Link LINKS[] = {
    {"InTheSameDirectory", "keys.xml", false},
    {"AbsoluteInTheSameDirectory", "keys.xml", true},
    {"IntoAnotherDirectory", "elsewhere/keys.xml", false},
    {"AbsoluteIntoAnotherDirectory", "elsewhere/keys.xml", true},
    {"ToANameOfTheStoreElsewhere", "elsewhere/key_contents_prv.xml", false},
    {"WithBlanks", "else where/my keys.xml", true},
    {"WithABlankInTheNameAlone", "elsewhere/my keys.xml", false},
    {"WithPercentSigns", "100%/50%41%20%25.xml", true},
    {"WithCharactersOfUris", "a:b/file:#?;&=+@[]\\\"<>.xml", false},
    {"WithBytesAboveAscii", "h\xc3\xb6her\xff/schl\xc3\xbcssel.xml", true},
};

class SaveThroughLink : public SavePermissions, public testing::WithParamInterface<Link> {
  protected:
    void SetUp() override
    {
        SavePermissions::SetUp();
        target_ = directory_ / GetParam().target;
        std::filesystem::create_directory(target_.parent_path());
        std::filesystem::rename(PRIVATE_FILE, target_);
        linked_to_ = GetParam().is_absolute ? target_ : std::filesystem::path(GetParam().target);
        std::filesystem::create_symlink(linked_to_, PRIVATE_FILE);
        names_ = names_in(".");
        names_at_target_ = names_in(target_.parent_path());
    }

    // The file, the link to it, and nothing in either directory that was not there before.
    void put_in_place(const std::string& content) const
    {
        for (const std::filesystem::path& directory : {directory_, target_.parent_path()}) {
            for (const std::string& name : names_in(directory)) {
                if (names_.count(name) == 0 && names_at_target_.count(name) == 0) {
                    std::filesystem::remove(directory / name);
                }
            }
        }
        std::filesystem::remove(PRIVATE_FILE);
        std::filesystem::create_symlink(linked_to_, PRIVATE_FILE);
        write_file(target_, content);
    }

    void expect_link_and_no_new_files() const
    {
        std::error_code error;
        EXPECT_EQ(std::filesystem::read_symlink(PRIVATE_FILE, error), linked_to_);
        EXPECT_EQ(names_in("."), names_);
        EXPECT_EQ(names_in(target_.parent_path()), names_at_target_);
    }

    std::filesystem::path target_;
    std::filesystem::path linked_to_;
    std::set<std::string> names_;
    std::set<std::string> names_at_target_;
};

INSTANTIATE_TEST_SUITE_P(Symbolic, SaveThroughLink, testing::ValuesIn(LINKS),
                         [](const auto& link) { return link.param.name; });

TEST_P(SaveThroughLink, ReplacesTheTargetAndKeepsTheLink)
{
    ASSERT_EQ(chmod(target_.c_str(), 0640), 0);
    const ino_t inode = status_of(target_).st_ino;
    EXPECT_EQ(add("added"), 0u);
    EXPECT_TRUE(holds(target_, "added"));
    EXPECT_TRUE(holds(target_, "private59"));
    EXPECT_NE(status_of(target_).st_ino, inode);
    EXPECT_EQ(status_of(target_).st_mode & 07777, 0640u);
    expect_link_and_no_new_files();
}

TEST_P(SaveThroughLink, LeavesTheOldTargetOrTheNewOneAndNothingElseWhicheverCallFails)
{
    const std::string old_content = read_file(target_);
    const SystemCalls calls = system_calls_of([] { EXPECT_EQ(add("added"), 0u); }, Scope::SAVES);
    const std::string new_content = read_file(target_);
    for (size_t point = 1; point <= calls.size(); ++point) {
        SCOPED_TRACE(calls[point - 1].text());
        put_in_place(old_content);
        const std::string printed = printed_by([&] {
            system_calls_of([] { add("added"); }, Scope::SAVES, {point, Meddling::FAIL, EIO});
        });
        const bool flush_of_directory =
            calls[point - 1].is("fsync", target_.parent_path().filename());
        EXPECT_TRUE(read_file(target_) ==
                    (printed.empty() || flush_of_directory ? new_content : old_content));
        EXPECT_EQ(printed, printed.empty() ? "" : COULD_NOT_SAVE);
        expect_link_and_no_new_files();
    }
}

TEST_F(SavePermissions, FollowAChainOfLinks)
{
    std::filesystem::create_directory("one");
    std::filesystem::create_directory("two");
    std::filesystem::rename(PRIVATE_FILE, "two/keys.xml");
    std::filesystem::create_symlink("../two/keys.xml", "one/link.xml");
    std::filesystem::create_symlink("one/link.xml", PRIVATE_FILE);
    EXPECT_EQ(add("added"), 0u);
    EXPECT_TRUE(holds("two/keys.xml", "added"));
    EXPECT_TRUE(std::filesystem::is_symlink(PRIVATE_FILE));
    EXPECT_TRUE(std::filesystem::is_symlink("one/link.xml"));
    EXPECT_EQ(names_in("one"), std::set<std::string>{"link.xml"});
    EXPECT_EQ(names_in("two"), std::set<std::string>{"keys.xml"});
}

// A file with several names is replaced under the store's name alone.
TEST_F(SavePermissions, LeaveTheOldContentUnderTheOtherNamesOfAFile)
{
    std::filesystem::create_hard_link(PRIVATE_FILE, "other name.xml");
    const std::string old_content = read_file(PRIVATE_FILE);
    EXPECT_EQ(add("added"), 0u);
    EXPECT_TRUE(holds(PRIVATE_FILE, "added"));
    EXPECT_EQ(read_file("other name.xml"), old_content);
}

// ---------------------------------------------------------------------------------------------
// What is in the sibling's place already
// ---------------------------------------------------------------------------------------------

TEST_F(SavePermissions, ReplaceASiblingThatAKilledProcessLeft)
{
    write_file(SIBLING, "half a docum");
    ASSERT_EQ(chmod(SIBLING.c_str(), 0666), 0);
    ASSERT_EQ(chmod(PRIVATE_FILE, 0600), 0);
    save_by_renaming();
    EXPECT_EQ(status_of(PRIVATE_FILE).st_mode & 07777, 0600u);
}

TEST_F(SavePermissions, DoNotWriteThroughALinkInTheSiblingsPlace)
{
    write_file("victim", "precious");
    std::filesystem::create_symlink("victim", SIBLING);
    save_by_renaming();
    EXPECT_FALSE(std::filesystem::is_symlink(PRIVATE_FILE));
    EXPECT_EQ(read_file("victim"), "precious");
}

TEST_F(SavePermissions, LeaveTheFileAsItIsWhereADirectoryIsInTheSiblingsPlace)
{
    std::filesystem::create_directory(SIBLING);
    const std::string content = read_file(PRIVATE_FILE);
    uint32_t result = 0;
    EXPECT_EQ(printed_by([&] { result = add("added"); }), COULD_NOT_SAVE);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(read_file(PRIVATE_FILE), content);
}

} // namespace
