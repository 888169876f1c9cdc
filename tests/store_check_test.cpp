// What the check of a key store finds; and, with the library itself beside it, that a store without
// findings holds no surprise.

#include "tools/store_check.h"

#include "key_driver/zentrava_key_driver.h"
#include "key_driver/zentrava_key_management_utils.h"

#include "support/bytes.h"
#include "support/p256_key_pair.h"
#include "support/printed.h"
#include "support/store_directory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <random>

static const std::string U = DEVICE_UID;
static const std::string KEY = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

static std::string text(const Finding& finding)
{
    return finding.what + " in line " + std::to_string(finding.line) + " of " + finding.file +
           ": " + finding.cause + "; " + finding.remedy;
}

static std::string all_of(const std::vector<Finding>& findings)
{
    std::string result;
    for (const Finding& finding : findings) {
        result += text(finding) + "\n";
    }
    return result;
}

// A store made line by line: the first record stands in line 3.
class StoreCheck : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        chmod(PRIVATE_FILE, 0600);
    }

    static std::vector<Finding> check()
    {
        std::vector<Finding> findings;
        const std::string printed = printed_by([&] {
            EXPECT_EQ(complained_by([&] { findings = check_store(PRIVATE_FILE, PUBLIC_FILE); }),
                      "");
        });
        EXPECT_EQ(printed, "");
        return findings;
    }

    // The one finding that these private records give rise to.
    static Finding only_finding(const std::string& records)
    {
        write_store_file(PRIVATE_FILE, records);
        return only_finding();
    }

    static Finding only_finding()
    {
        const std::vector<Finding> findings = check();
        EXPECT_EQ(findings.size(), 1u) << all_of(findings);
        if (findings.size() != 1) {
            return {};
        }
        EXPECT_NE(findings[0].cause, "");
        EXPECT_NE(findings[0].remedy, "");
        return findings[0];
    }

    static void expect(const Finding& finding, Severity severity, const std::string& what,
                       const std::string& file, int line)
    {
        EXPECT_EQ(finding.severity, severity) << text(finding);
        EXPECT_EQ(finding.what, what);
        EXPECT_EQ(finding.file, file) << text(finding);
        EXPECT_EQ(finding.line, line) << text(finding);
    }

    // Expects one finding about the private record in line 3.
    static void expect_in_line_3(const std::string& records, Severity severity,
                                 const std::string& what)
    {
        SCOPED_TRACE(records);
        expect(only_finding(records), severity, what, PRIVATE_FILE, 3);
    }
};

static std::string element(const std::string& name, const std::string& content)
{
    return "<" + name + ">" + content + "</" + name + ">";
}

static std::string record_of(const std::string& elements)
{
    return element("key_content", elements) + "\n";
}

static const std::string UID_ELEMENT = element("uid", U);
static const std::string NAME_ELEMENT = element("key_name", "srk");
static const std::string HANDLE_ELEMENT = element("handle", "1");
static const std::string KEY_ELEMENT = element("key", KEY);

static bool library_loads(const std::string& uid, const std::string& name, Bytes* key)
{
    uint32_t size = 4096;
    key->assign(size, 0);
    bool loaded = false;
    printed_by([&] {
        loaded = get_key(reinterpret_cast<const unsigned char*>(uid.c_str()), name.c_str(),
                         key->data(), &size) == 0;
    });
    key->resize(loaded ? size : 0);
    return loaded;
}

static bool library_loads(const std::string& uid, const std::string& name)
{
    Bytes key;
    return library_loads(uid, name, &key);
}

// ---- Good stores

TEST_F(StoreCheck, FindsNothingInEmptyFiles)
{
    EXPECT_EQ(all_of(check()), "");
    EXPECT_FALSE(store_is_damaged(check()));
}

TEST_F(StoreCheck, FindsNothingInAStoreWithEveryKeyOfTheDriver)
{
    const P256KeyPair pair = random_key_pair();
    const std::string number = to_hex(pair.private_key);
    std::string records;
    int handle = 0;
    for (const char* name : {"srk", "crk", "tmp_client_session_key", "my own"}) {
        records += record(U, name, std::to_string(++handle), KEY, "some metadata");
    }
    for (const char* name : {"ecdsa_prv", "ecdh_prv", "ecdsa_prv_slot_0", "ecdh_prv_slot_7",
                             "ecdsa_prv_slot_-1", "ecdh_prv_slot_2147483647"}) {
        records += record(U, name, std::to_string(++handle), number);
    }
    write_store_file(PRIVATE_FILE, records);
    write_store_file(PUBLIC_FILE, record(U, "ECDSA_DS_PuK", "100", to_hex(pair.coordinates)) +
                                      record(U, "a peer", "101", to_hex(pair.coordinates)));
    EXPECT_EQ(all_of(check()), "");
}

// ---- Files

TEST_F(StoreCheck, FindsAMissingFile)
{
    unlink(PUBLIC_FILE);
    expect(only_finding(), ERROR, "missing-file", PUBLIC_FILE, 0);
    unlink(PRIVATE_FILE);
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 2u);
    expect(findings[0], ERROR, "missing-file", PRIVATE_FILE, 0);
    expect(findings[1], ERROR, "missing-file", PUBLIC_FILE, 0);
}

TEST_F(StoreCheck, FindsADirectoryInPlaceOfAFile)
{
    unlink(PUBLIC_FILE);
    mkdir(PUBLIC_FILE, 0755);
    expect(only_finding(), ERROR, "unreadable-file", PUBLIC_FILE, 0);
}

TEST_F(StoreCheck, FindsAFileThatIsNotWellFormedAndTellsTheLine)
{
    struct Case {
        const char* content;
        int line;
        const char* cause;
    };
    for (const Case& broken :
         {Case{"", 1, "no element"}, Case{"<keys>\n<a>\n</b>\n</keys>\n", 3, "closes another"},
          Case{"<keys>\n<a>\n", 3, "ends inside"}, Case{"<keys/>\n\nmore\n", 3, "behind the root"},
          Case{"<keys>\n\x01</keys>\n", 2, "not allow"}, Case{"<keys>\n&x;</keys>\n", 2, "entity"},
          Case{"<keys>\n\xc3(</keys>\n", 2, "encoding"}, Case{"<keys>\n< a/></keys>\n", 2, "name"},
          Case{"<keys a=1/>\n", 1, "libxml2"},
          // An unknown prefix is an error that the parser lives with.
          Case{"<a:keys>\n<a>\n</b>\n</a:keys>\n", 3, "closes another"}}) {
        SCOPED_TRACE(broken.content);
        write_file(PRIVATE_FILE, broken.content);
        const Finding finding = only_finding();
        expect(finding, ERROR, "not-well-formed", PRIVATE_FILE, broken.line);
        EXPECT_NE(finding.cause.find(broken.cause), std::string::npos) << finding.cause;
        EXPECT_TRUE(store_is_damaged({finding}));
    }
}

TEST_F(StoreCheck, FindsWhatIsWrongInOneFileAlthoughTheOtherIsNotWellFormed)
{
    write_file(PRIVATE_FILE, "<keys>");
    write_store_file(PUBLIC_FILE, record(U, "srk", "x", KEY));
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 3u) << all_of(findings);
    EXPECT_EQ(findings[0].what, "not-well-formed");
    EXPECT_EQ(findings[1].file, PUBLIC_FILE);
}

TEST_F(StoreCheck, FindsAPrivateFileThatOthersCanRead)
{
    for (const mode_t mode : {0640u, 0604u, 0444u}) {
        chmod(PRIVATE_FILE, mode);
        const Finding finding = only_finding();
        expect(finding, WARNING, "readable-by-others", PRIVATE_FILE, 0);
        EXPECT_EQ(finding.remedy, "chmod 600 key_contents_prv.xml");
        EXPECT_FALSE(store_is_damaged({finding}));
    }
}

TEST_F(StoreCheck, FindsAFileThatOthersCanWrite)
{
    for (const char* file : {PRIVATE_FILE, PUBLIC_FILE}) {
        chmod(file, 0620);
        chmod(file == PRIVATE_FILE ? PUBLIC_FILE : PRIVATE_FILE, 0600);
        expect(only_finding(), WARNING, "writable-by-others", file, 0);
    }
}

TEST_F(StoreCheck, FindsARootThatIsARecord)
{
    write_file(PRIVATE_FILE, record(U, "srk", "1", KEY));
    expect(only_finding(), ERROR, "root-is-record", PRIVATE_FILE, 1);
}

// ---- Records that the search does not find, or finds in place of another

TEST_F(StoreCheck, FindsAKeyNameBeforeItsUid)
{
    expect_in_line_3(record_of(NAME_ELEMENT + UID_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT), ERROR,
                     "name-before-uid");
    EXPECT_FALSE(library_loads(U, "srk"));
}

TEST_F(StoreCheck, FindsARecordWithoutUid)
{
    expect_in_line_3(record_of(NAME_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT), ERROR, "no-uid");
}

TEST_F(StoreCheck, FindsARecordWithoutKeyName)
{
    expect_in_line_3(record_of(UID_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT), ERROR, "no-key-name");
}

TEST_F(StoreCheck, FindsARecordWithoutKey)
{
    expect_in_line_3(record_of(UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT), ERROR, "no-key");
    EXPECT_FALSE(library_loads(U, "srk"));
}

TEST_F(StoreCheck, FindsARecordWithoutHandle)
{
    expect_in_line_3(record_of(UID_ELEMENT + NAME_ELEMENT + KEY_ELEMENT), ERROR, "no-handle");
}

TEST_F(StoreCheck, FindsAnEmptyRecord)
{
    expect_in_line_3("<key_content/>\n", ERROR, "empty-record");
    expect_in_line_3("<key_content></key_content>\n", ERROR, "empty-record");
}

TEST_F(StoreCheck, FindsARecordInsideAnotherOne)
{
    const std::string inner =
        element("key_content", element("uid", U) + element("key_name", "crk") +
                                   element("handle", "2") + KEY_ELEMENT);
    const std::string outer = UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT + "\n";
    const Finding finding = only_finding(record_of(outer + inner));
    expect(finding, ERROR, "record-in-record", PRIVATE_FILE, 4);
    EXPECT_EQ(finding.key_name, "crk");
    EXPECT_FALSE(library_loads(U, "crk"));
}

TEST_F(StoreCheck, FindsARecordThatIsNotDirectlyBelowTheRoot)
{
    expect_in_line_3("<more>" + record(U, "srk", "1", KEY) + "</more>\n", WARNING, "deep-record");
    EXPECT_TRUE(library_loads(U, "srk"));
}

TEST_F(StoreCheck, FindsElementsWithoutText)
{
    for (const std::string& empty : {element("uid", ""), std::string("<uid/>"),
                                     element("uid", "<!-- -->" + U), element("uid", "<b/>")}) {
        const std::string rest = NAME_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT;
        expect_in_line_3(record_of(empty + rest), ERROR, "no-text");
    }
    expect_in_line_3(record_of(UID_ELEMENT + "<key_name/>" + HANDLE_ELEMENT + KEY_ELEMENT), ERROR,
                     "no-text");
    expect_in_line_3(record_of(UID_ELEMENT + NAME_ELEMENT + "<handle/>" + KEY_ELEMENT), ERROR,
                     "no-text");
    expect_in_line_3(record_of(UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT + "<key/>"), ERROR,
                     "no-text");
    EXPECT_FALSE(library_loads(U, "srk"));
    expect_in_line_3(
        record_of(UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT + element("key", "<!-- -->" + KEY)),
        ERROR, "no-text");
    EXPECT_FALSE(library_loads(U, "srk"));
    expect_in_line_3(
        record_of(UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT + "<metadata/>"),
        WARNING, "no-text");
}

TEST_F(StoreCheck, FindsTextThatIsReadInPartOnly)
{
    const std::string rest = KEY.substr(10);
    const std::string front = UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT;
    const std::vector<std::string> keys = {KEY + "<!-- old: -->" + rest,
                                           KEY + "<![CDATA[" + rest + "]]>"};
    for (const std::string& key : keys) {
        expect_in_line_3(record_of(front + element("key", key)), ERROR, "interrupted-text");
    }
    EXPECT_EQ(all_of({}), "");
    // Nothing is cut off by a comment at the end.
    write_store_file(PRIVATE_FILE, record_of(front + element("key", KEY + "<!-- end -->")));
    EXPECT_EQ(all_of(check()), "");
}

TEST_F(StoreCheck, FindsWhiteSpaceAroundAUidOrName)
{
    const std::string rest = HANDLE_ELEMENT + KEY_ELEMENT;
    expect_in_line_3(record_of(UID_ELEMENT + element("key_name", " srk") + rest), ERROR,
                     "space-around-text");
    EXPECT_FALSE(library_loads(U, "srk"));
    write_store_file(PRIVATE_FILE, record_of(element("uid", U + "\n") + NAME_ELEMENT + rest));
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 2u) << all_of(findings);
    EXPECT_EQ(findings[0].what, "uid-length");
    EXPECT_EQ(findings[1].what, "space-around-text");
}

TEST_F(StoreCheck, FindsAUidThatNoKeyCanBeAddedTo)
{
    const Finding finding = only_finding(record("0123", "srk", "1", KEY));
    expect(finding, WARNING, "uid-length", PRIVATE_FILE, 3);
    EXPECT_NE(finding.cause.find("4 characters"), std::string::npos);
}

TEST_F(StoreCheck, FindsARepeatedElement)
{
    for (const std::string& repeated : {UID_ELEMENT, NAME_ELEMENT, HANDLE_ELEMENT, KEY_ELEMENT}) {
        expect_in_line_3(
            record_of(UID_ELEMENT + NAME_ELEMENT + HANDLE_ELEMENT + KEY_ELEMENT + repeated),
            WARNING, "repeated-element");
    }
}

TEST_F(StoreCheck, FindsMetadataThatHidesTheHandle)
{
    expect_in_line_3(record_of(UID_ELEMENT + NAME_ELEMENT + element("metadata", "m") +
                               HANDLE_ELEMENT + KEY_ELEMENT),
                     WARNING, "metadata-before-handle");
    char metadata[8] = {};
    char handle[8] = {};
    printed_by([&] { get_key_handle(U.c_str(), "srk", metadata, 8, handle, 8); });
    EXPECT_STREQ(metadata, "m");
    EXPECT_STREQ(handle, "");
}

TEST_F(StoreCheck, FindsADuplicateKeyWithinAFileAndTellsWhichOneWins)
{
    const std::string other(64, '7');
    const Finding finding = only_finding(record(U, "srk", "1", KEY) + record(U, "crk", "2", KEY) +
                                         record(U, "srk", "3", other));
    expect(finding, ERROR, "duplicate-key", PRIVATE_FILE, 5);
    EXPECT_EQ(finding.uid, U);
    EXPECT_EQ(finding.key_name, "srk");
    EXPECT_EQ(finding.handle, "3");
    EXPECT_NE(finding.cause.find("line 3 of key_contents_prv.xml"), std::string::npos);
    Bytes key;
    ASSERT_TRUE(library_loads(U, "srk", &key));
    EXPECT_EQ(to_hex(key), KEY);
}

TEST_F(StoreCheck, FindsAKeyThatIsInBothFilesAndTellsWhichOneWins)
{
    const std::string other(64, '7');
    write_store_file(PRIVATE_FILE, record(U, "mine", "1", KEY));
    write_store_file(PUBLIC_FILE, "\n" + record(U, "mine", "2", other));
    const Finding finding = only_finding();
    expect(finding, WARNING, "key-in-both-files", PUBLIC_FILE, 4);
    EXPECT_NE(finding.cause.find("line 3 of key_contents_prv.xml"), std::string::npos);
    EXPECT_NE(finding.cause.find("loaded from there, handle and metadata are taken from here"),
              std::string::npos);
    Bytes key;
    ASSERT_TRUE(library_loads(U, "mine", &key));
    EXPECT_EQ(to_hex(key), KEY);
    char handle[8] = {};
    ASSERT_EQ(get_key_handle(U.c_str(), "mine", nullptr, 0, handle, 8), 0u);
    EXPECT_STREQ(handle, "2");
}

TEST_F(StoreCheck, TellsThatTheOtherFileWinsWhereTheKeyTextIsMissing)
{
    const std::string other(64, '7');
    write_store_file(PRIVATE_FILE, record(U, "mine", "1", ""));
    write_store_file(PUBLIC_FILE, record(U, "mine", "2", other));
    const std::vector<Finding> findings = check();
    ASSERT_EQ(findings.size(), 2u) << all_of(findings);
    EXPECT_EQ(findings[0].what, "no-text");
    EXPECT_EQ(findings[1].what, "key-in-both-files");
    EXPECT_NE(findings[1].cause.find("loaded from here"), std::string::npos);
    Bytes key;
    ASSERT_TRUE(library_loads(U, "mine", &key));
    EXPECT_EQ(to_hex(key), other);
}

TEST_F(StoreCheck, TakesTheSameNameOfAnotherUidForAnotherKey)
{
    write_store_file(PRIVATE_FILE,
                     record(U, "srk", "1", KEY) + record(std::string(32, 'f'), "srk", "2", KEY));
    EXPECT_EQ(all_of(check()), "");
    // Nor do UID and name run into each other.
    write_store_file(PRIVATE_FILE, record(U.substr(1), U[0] + std::string("x"), "1", KEY) +
                                       record(U.substr(1) + U[0], "x", "2", KEY));
    for (const Finding& finding : check()) {
        EXPECT_EQ(finding.what, "uid-length");
    }
}

// ---- Handles

TEST_F(StoreCheck, FindsADuplicateHandleAndTellsWhichRecordIsFound)
{
    const Finding within = only_finding(record(U, "srk", "7", KEY) + record(U, "crk", "7", KEY));
    expect(within, ERROR, "duplicate-handle", PRIVATE_FILE, 4);
    EXPECT_NE(within.cause.find("line 3 of key_contents_prv.xml, and that one"), std::string::npos);

    write_store_file(PRIVATE_FILE, record(U, "srk", "7", KEY));
    write_store_file(PUBLIC_FILE, record(U, "own", "7", KEY));
    const Finding across = only_finding();
    expect(across, ERROR, "duplicate-handle", PUBLIC_FILE, 3);
    EXPECT_NE(across.cause.find("line 3 of key_contents_prv.xml, and this one"), std::string::npos);
    ASSERT_EQ(delete_key_by_handle("7"), 0u);
    EXPECT_TRUE(library_loads(U, "srk"));
    EXPECT_FALSE(library_loads(U, "own"));
}

static std::string next_handle()
{
    char handle[128] = {};
    add_volatile_key("00", handle, sizeof handle);
    printed_by([&] { delete_key_by_handle(handle); });
    return handle;
}

TEST_F(StoreCheck, FindsANegativeHandle)
{
    expect_in_line_3(record(U, "srk", "-5", KEY), ERROR, "negative-handle");
    EXPECT_EQ(next_handle(), "-4");
}

TEST_F(StoreCheck, FindsAHandleThatIsNoNumber)
{
    for (const char* handle : {"x", "7a", " 7", "7 ", "+7", "0x7", "-", "7.0", "--7"}) {
        expect_in_line_3(record(U, "srk", handle, KEY), ERROR, "non-numeric-handle");
    }
}

TEST_F(StoreCheck, FindsAHandleThatNoPositiveOneFollows)
{
    for (const char* handle : {"2147483647", "4294967295", "99999999999999999999999999"}) {
        expect_in_line_3(record(U, "srk", handle, KEY), ERROR, "handle-too-large");
    }
    write_store_file(PRIVATE_FILE, record(U, "srk", "2147483647", KEY));
    EXPECT_EQ(next_handle(), "-2147483648");
    write_store_file(PRIVATE_FILE, record(U, "srk", "2147483646", KEY));
    EXPECT_EQ(all_of(check()), "");
}

TEST_F(StoreCheck, FindsAHandleThatBeginsWithZero)
{
    expect_in_line_3(record(U, "srk", "07", KEY), WARNING, "unusual-handle");
}

// ---- Keys

static const char* const DRIVER_NAMES_OF_32_BYTES[] = {"srk",
                                                       "crk",
                                                       "tmp_client_session_key",
                                                       "ecdsa_prv",
                                                       "ecdh_prv",
                                                       "ecdsa_prv_slot_3",
                                                       "ecdh_prv_slot_-12"};

TEST_F(StoreCheck, FindsAKeyTextThatIsNotHexadecimal)
{
    std::string key = KEY;
    key[20] = 'g';
    const Finding finding = only_finding(record(U, "srk", "1", key));
    expect(finding, ERROR, "not-hexadecimal", PRIVATE_FILE, 3);
    EXPECT_NE(finding.cause.find("character 21 of the key text"), std::string::npos);
    key[20] = ' ';
    EXPECT_NE(only_finding(record(U, "srk", "1", key)).cause.find("white space"),
              std::string::npos);
}

TEST_F(StoreCheck, FindsALengthThatTheDriverRefuses)
{
    for (const char* name : DRIVER_NAMES_OF_32_BYTES) {
        for (const size_t length : {1u, 2u, 31u, 62u, 65u, 66u, 128u}) {
            SCOPED_TRACE(std::to_string(length));
            expect_in_line_3(record(U, name, "1", std::string(length, '1')), ERROR, "key-length");
        }
    }
    for (const size_t length : {64u, 126u, 129u, 130u}) {
        expect_in_line_3(record(U, "ECDSA_DS_PuK", "1", std::string(length, '1')), ERROR,
                         "key-length");
    }
}

TEST_F(StoreCheck, FindsALengthExactlyWhereTheDriverRefusesIt)
{
    KeyLibraryContext context;
    uint8_t* context_buf = reinterpret_cast<uint8_t*>(&context);
    ASSERT_EQ(key_lib_open(U.c_str(), nullptr, nullptr, context_buf), KeyLibrary_OK);
    for (size_t length = 1; length <= 140; ++length) {
        SCOPED_TRACE(length);
        write_store_file(PRIVATE_FILE,
                         record(U, "srk", "1", std::string(length, '1')) +
                             record(U, "ECDSA_DS_PuK", "2", std::string(length, '1')));
        KeyLibraryErrorCode hmac_key = KeyLibrary_OK;
        KeyLibraryErrorCode public_key = KeyLibrary_OK;
        printed_by([&] {
            hmac_key = set_srk_as_hmac_root_signing_key(context_buf, true);
            public_key = set_ecdsa_verification_key(context_buf, true);
        });
        bool found[2] = {};
        for (const Finding& finding : check()) {
            found[finding.line - 3] |= finding.what == "key-length";
        }
        EXPECT_EQ(found[0], hmac_key != KeyLibrary_OK);
        EXPECT_EQ(found[1], public_key != KeyLibrary_OK);
    }
    key_lib_close(context_buf);
}

TEST_F(StoreCheck, FindsAnOddNumberOfDigits)
{
    expect_in_line_3(record(U, "srk", "1", KEY.substr(1)), ERROR, "odd-key-length");
    expect_in_line_3(record(U, "own", "1", std::string(127, '1')), ERROR, "odd-key-length");
}

TEST_F(StoreCheck, FindsAKeyThatIsHandedOutAsItsCharacters)
{
    expect_in_line_3(record(U, "own", "1", "a1b2c3"), WARNING, "unconverted-key");
    Bytes key;
    ASSERT_TRUE(library_loads(U, "own", &key));
    EXPECT_EQ(key, bytes_of("a1b"));
}

TEST_F(StoreCheck, FindsAPrivateKeyOutOfRange)
{
    for (const char* name : {"ecdsa_prv", "ecdh_prv", "ecdsa_prv_slot_7", "ecdh_prv_slot_-1"}) {
        for (const mpz_class& number :
             {mpz_class(0), P256_ORDER, mpz_class((mpz_class(1) << 256) - 1)}) {
            expect_in_line_3(record(U, name, "1", to_hex(bytes(number))), ERROR,
                             "private-key-range");
        }
        for (const mpz_class& number : {mpz_class(1), mpz_class(P256_ORDER - 1)}) {
            write_store_file(PRIVATE_FILE, record(U, name, "1", to_hex(bytes(number))));
            EXPECT_EQ(all_of(check()), "");
        }
    }
    write_store_file(PRIVATE_FILE, record(U, "srk", "1", std::string(64, '0')));
    EXPECT_EQ(all_of(check()), "");
}

TEST_F(StoreCheck, FindsAPublicKeyOffTheCurve)
{
    for (int i = 0; i < 20; ++i) {
        Bytes point = random_key_pair().coordinates;
        write_store_file(PRIVATE_FILE, record(U, "ECDSA_DS_PuK", "1", to_hex(point)));
        EXPECT_EQ(all_of(check()), "");
        point[static_cast<size_t>(i) * 3] ^= 0x10;
        expect_in_line_3(record(U, "ECDSA_DS_PuK", "1", to_hex(point)), ERROR,
                         "public-key-off-curve");
    }
}

TEST_F(StoreCheck, ReadsUpperCaseDigitsAsTheLibraryDoes)
{
    std::string point = to_hex(random_key_pair().coordinates);
    std::transform(point.begin(), point.end(), point.begin(),
                   [](unsigned char digit) { return static_cast<char>(toupper(digit)); });
    write_store_file(PRIVATE_FILE, record(U, "ECDSA_DS_PuK", "1", point));
    EXPECT_EQ(all_of(check()), "");
}

TEST_F(StoreCheck, FindsASlotNameThatTheDriverNeverAsksFor)
{
    for (const char* name : {"ecdsa_prv_slot_07", "ecdh_prv_slot_4294967295", "ecdh_prv_slot_x",
                             "ecdsa_prv_slot_", "ecdsa_prv_slot_-0"}) {
        expect_in_line_3(record(U, name, "1", KEY), WARNING, "slot-name");
    }
    write_store_file(PRIVATE_FILE, record(U, "srk_slot_7x", "1", KEY));
    EXPECT_EQ(all_of(check()), "");
}

TEST_F(StoreCheck, FindsASecretInThePublicFile)
{
    write_store_file(PUBLIC_FILE, record(U, "srk", "1", KEY));
    expect(only_finding(), WARNING, "secret-in-public-file", PUBLIC_FILE, 3);
}

// ---- The findings as a whole

TEST_F(StoreCheck, NeverShowsAKeyText)
{
    const std::string secret = "ec0e75"; // a name as well, which the parser's messages quote
    std::string key;
    while (key.size() < 60) {
        key += secret;
    }
    const std::vector<std::string> records = {
        record(U, "ecdsa_prv", "x", key + "zzzz"), record(U, "srk", "-1", key),
        record_of(KEY_ELEMENT + element("key", key)), record_of(element("key", "<!-- -->" + key)),
        record(U, "ECDSA_DS_PuK", "1", key + key + "12345678")};
    std::string all;
    for (const std::string& each : records) {
        all += each;
        write_store_file(PRIVATE_FILE, all);
        EXPECT_EQ(all_of(check()).find(secret), std::string::npos);
    }
    for (const std::string& broken :
         {"<keys><key>" + key + "</ky></keys>", "<keys><key>" + key, "<keys><" + key + "></keys>",
          "<keys><key>" + key + "\xff" + key + "</key></keys>",
          "<keys><key a='" + key + "'" + key + "></key></keys>", "<keys>&" + key + ";</keys>"}) {
        write_file(PRIVATE_FILE, broken);
        const std::vector<Finding> findings = check();
        ASSERT_FALSE(findings.empty());
        EXPECT_EQ(all_of(findings).find(secret), std::string::npos) << all_of(findings);
    }
}

TEST_F(StoreCheck, TellsFindingsInTheOrderOfTheirLinesThePrivateFileFirst)
{
    write_store_file(PUBLIC_FILE, record(U, "own", "x", KEY));
    write_store_file(PRIVATE_FILE,
                     "<key_content>\n<uid/>\n<key_name/>\n<handle/>\n<key/>\n</key_content>\n" +
                         record(U, "srk", "y", KEY));
    std::vector<int> lines;
    for (const Finding& finding : check()) {
        lines.push_back(finding.line);
    }
    EXPECT_EQ(lines, (std::vector<int>{4, 5, 6, 7, 9, 3}));
}

TEST_F(StoreCheck, TellsLinesBeyond65535)
{
    const std::string bad = record(U, "srk", "x", KEY);
    for (const int line : {65530, 65534, 65535, 65536, 65537, 70000, 200001}) {
        SCOPED_TRACE(line);
        const std::string empty_lines(static_cast<size_t>(line - 3), '\n');
        expect(only_finding(empty_lines + bad), ERROR, "non-numeric-handle", PRIVATE_FILE, line);
    }
}

struct PlainRecord {
    std::string uid;
    std::string key_name;
    std::string key;
};

// The records of a text whose UID, name, handle and key stand in it side by side without anything
// else between them.
static std::vector<PlainRecord> plain_records(const std::string& text)
{
    std::vector<PlainRecord> records;
    const char* const marks[] = {"<uid>", "</uid><key_name>", "</key_name><handle>",
                                 "</handle><key>", "</key>"};
    for (size_t at = text.find(marks[0]); at != text.npos; at = text.find(marks[0], at + 1)) {
        std::vector<std::string> pieces;
        size_t begin = at + strlen(marks[0]);
        for (size_t i = 1; i < std::size(marks); ++i) {
            const size_t end = text.find('<', begin);
            if (end == text.npos || text.compare(end, strlen(marks[i]), marks[i]) != 0) {
                break;
            }
            pieces.push_back(text.substr(begin, end - begin));
            begin = end + strlen(marks[i]);
        }
        if (pieces.size() + 1 == std::size(marks)) {
            records.push_back({pieces[0], pieces[1], pieces[3]});
        }
    }
    return records;
}

// One change at random to a good store's text: if nothing is found, the library loads each key whose
// elements stand in the text, as the bytes that stand there.
TEST_F(StoreCheck, FindsEveryChangeThatLosesTheLibraryAKey)
{
    const std::string good = record(U, "srk", "1", KEY, "metadata") + record(U, "crk", "2", KEY) +
                             record(U, "own", "3", KEY);
    const std::string pieces[] = {"",   " ",       "<!-- -->", "x",       "<uid/>", "-",
                                  "\n", "</keys>", "<key>",    "<more/>", "0",      "<handle/>"};
    std::mt19937 random(20261121);
    int noticed = 0;
    int loaded = 0;
    for (int i = 0; i < 1000; ++i) {
        std::string changed = good;
        changed.replace(random() % changed.size(), random() % 4,
                        pieces[random() % std::size(pieces)]);
        write_store_file(PRIVATE_FILE, changed);
        if (!check_store(PRIVATE_FILE, PUBLIC_FILE).empty()) {
            ++noticed;
            continue;
        }
        for (const PlainRecord& plain : plain_records(changed)) {
            ++loaded;
            Bytes key;
            ASSERT_TRUE(library_loads(plain.uid, plain.key_name, &key)) << changed;
            EXPECT_EQ(key, from_hex(plain.key)) << changed;
        }
    }
    EXPECT_GT(noticed, 300);
    EXPECT_GT(loaded, 100);
}

static double seconds_to_check(int count)
{
    std::string records;
    for (int i = 0; i < count; ++i) {
        char uid[33];
        snprintf(uid, sizeof uid, "%032x", static_cast<unsigned int>(i));
        records += record(uid, "srk", std::to_string(i + 1), KEY);
    }
    write_store_file(PRIVATE_FILE, records);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(check_store(PRIVATE_FILE, PUBLIC_FILE).empty());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// A search for each record among all others would take a hundred times as long for ten times as
// many, and minutes for this many.
TEST_F(StoreCheck, TakesTimeInProportionToTheRecords)
{
    const double few = std::min({seconds_to_check(10000), seconds_to_check(10000)});
    const double many = seconds_to_check(100000);
    RecordProperty("seconds_for_100000", std::to_string(many));
    EXPECT_LT(many, 40 * few) << few;
}
