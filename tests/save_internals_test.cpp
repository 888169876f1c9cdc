// What a save consists of, piece by piece: extended attributes (access control lists, security labels)
// on a file system of the test's own, since not every machine has one with attributes, and libxml2's
// reports of errors.

#include "key_driver/durable_save.cpp"

#include "tests/support/failing_allocation.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

namespace {

using Attributes = std::map<std::string, std::string>;

// Descriptors that the system does not hand out.
const int OLD_FILE = 0x7A000001;
const int NEW_FILE = 0x7A000002;

std::map<int, Attributes> attributes_of;
std::string unreadable; // an attribute whose value is not to be had
int error_of_setting = 0;
unsigned int times_set = 0;

ssize_t fail_with(int error)
{
    errno = error;
    return -1;
}

ssize_t hand_out(const std::string& value, char* buffer, size_t size)
{
    if (value.size() > size) {
        return fail_with(ERANGE);
    }
    std::copy(value.begin(), value.end(), buffer);
    return static_cast<ssize_t>(value.size());
}

} // namespace

extern "C" {

ssize_t __wrap_flistxattr(int fd, char* names, size_t size);
ssize_t __wrap_fgetxattr(int fd, const char* name, void* value, size_t size);
int __wrap_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);

ssize_t __wrap_flistxattr(int fd, char* names, size_t size)
{
    std::string list;
    for (const auto& attribute : attributes_of[fd]) {
        list += attribute.first + '\0';
    }
    return hand_out(list, names, size);
}

ssize_t __wrap_fgetxattr(int fd, const char* name, void* value, size_t size)
{
    if (name == unreadable) {
        return fail_with(EACCES);
    }
    const Attributes& attributes = attributes_of[fd];
    const auto found = attributes.find(name);
    return found == attributes.end() ? fail_with(ENODATA)
                                     : hand_out(found->second, static_cast<char*>(value), size);
}

int __wrap_fsetxattr(int fd, const char* name, const void* value, size_t size, int)
{
    ++times_set;
    if (error_of_setting != 0) {
        return static_cast<int>(fail_with(error_of_setting));
    }
    attributes_of[fd][name] = {static_cast<const char*>(value), size};
    return 0;
}
}

namespace {

class CopiedAttributes : public testing::Test {
  protected:
    void SetUp() override
    {
        attributes_of = {};
        attributes_of[OLD_FILE] = {{"security.label", "secret"}, {"user.owner", "somebody"}};
        unreadable = "";
        error_of_setting = 0;
        times_set = 0;
    }
};

TEST_F(CopiedAttributes, AreThoseOfTheOldFile)
{
    EXPECT_TRUE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(attributes_of[NEW_FILE], attributes_of[OLD_FILE]);
    EXPECT_EQ(times_set, 2U);
}

// Setting one may not be permitted, where the system has given the file the same one already.
TEST_F(CopiedAttributes, AreLeftAloneWhereTheyAreTheSame)
{
    attributes_of[NEW_FILE] = attributes_of[OLD_FILE];
    error_of_setting = EPERM;
    EXPECT_TRUE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(times_set, 0U);
}

TEST_F(CopiedAttributes, ReplaceOthersOfTheSameLength)
{
    attributes_of[NEW_FILE] = {{"security.label", "public"}, {"user.owner", "somebody"}};
    EXPECT_TRUE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(attributes_of[NEW_FILE], attributes_of[OLD_FILE]);
    EXPECT_EQ(times_set, 1U);
}

TEST_F(CopiedAttributes, ReplaceOthersOfAnotherLength)
{
    attributes_of[NEW_FILE] = {{"security.label", "secret and more"}};
    EXPECT_TRUE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(attributes_of[NEW_FILE], attributes_of[OLD_FILE]);
}

TEST_F(CopiedAttributes, AreAllOrItIsAFailure)
{
    unreadable = "user.owner";
    EXPECT_FALSE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(outcome_of_errno(), NOT_POSSIBLE_HERE);

    unreadable = "";
    error_of_setting = ENOTSUP;
    EXPECT_FALSE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(outcome_of_errno(), NOT_POSSIBLE_HERE);

    error_of_setting = ENOSPC;
    EXPECT_FALSE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(outcome_of_errno(), FAILED);
}

TEST_F(CopiedAttributes, AreNotCopiedInPart)
{
    attributes_of[OLD_FILE]["user.long"] = std::string(5000, 'l');
    EXPECT_FALSE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(outcome_of_errno(), NOT_POSSIBLE_HERE);

    attributes_of[OLD_FILE] = {{"user." + std::string(5000, 'n'), "a long name"}};
    EXPECT_FALSE(copy_attributes(OLD_FILE, NEW_FILE));
    EXPECT_EQ(outcome_of_errno(), NOT_POSSIBLE_HERE);
}

// ---- Errors of libxml2's -----------------------------------------------------------------------

TEST(ReportedErrors, AreErrorsAndNotWarnings)
{
    testing::internal::CaptureStderr(); // where libxml2 tells of them as well
    xmlResetLastError();
    EXPECT_FALSE(error_was_reported());
    EXPECT_NE(parsed("<keys xmlns='relative'/>"), nullptr);
    EXPECT_NE(xmlGetLastError(), nullptr);
    EXPECT_FALSE(error_was_reported());
    EXPECT_EQ(parsed("<keys>"), nullptr);
    EXPECT_TRUE(error_was_reported());
    testing::internal::GetCapturedStderr();
}

TEST(TextOfADocument, IsWholeOrNotThereWithoutMemory)
{
    testing::internal::CaptureStderr();
    const Document document = parsed("<?xml version='1.0' encoding='ISO-8859-1'?><keys>" +
                                     std::string(20000, 'k') + "<key>&#233;</key></keys>");
    size_t whole_size = 0;
    xmlChar* whole = text_of_document(document.get(), &whole_size);
    ASSERT_NE(whole, nullptr);
    bool enough = false;
    for (unsigned int k = 1; !enough; ++k) {
        xmlChar* text = nullptr;
        size_t size = 0;
        const Allocations made =
            failing_allocation(k, [&] { text = text_of_document(document.get(), &size); });
        enough = !made.any_failed;
        EXPECT_TRUE(text != nullptr || !enough);
        EXPECT_TRUE(text == nullptr || (size == whole_size && xmlStrEqual(text, whole))) << k;
        xmlFree(text);
    }
    xmlFree(whole);
    testing::internal::GetCapturedStderr();
}

// libxml2 writes something else then, and reports it.
TEST(TextOfADocument, IsNotThereWhereATextIsNotInUtf8)
{
    testing::internal::CaptureStderr();
    const Document document = parsed("<keys/>");
    xmlAddChild(root_of(document), xmlNewDocText(document.get(), xml("\x80")));
    size_t size = 0;
    EXPECT_EQ(text_of_document(document.get(), &size), nullptr);
    testing::internal::GetCapturedStderr();
}

} // namespace
