/**
 * @file
 * The key store: key records in two XML files, found by (UID, key name) or by decimal handle.
 *
 * @par Files
 * "key_contents_prv.xml" (private) and "key_contents_pub.xml" (public) are opened by these bare
 * names in the process's current working directory. The library reads them and never creates
 * them. A store file is any XML document whose root element holds records:
 *
 *     <key_content>
 *       <uid>0123456789abcdef0123456789abcdef</uid>
 *       <key_name>srk</key_name>
 *       <handle>1</handle>
 *       <key>000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f</key>
 *       <metadata>free text</metadata>
 *     </key_content>
 *
 * @par Search
 * The first record in document order that matches is taken, at any depth below the root, but not
 * inside another record, nor in what an entity reference stands for. Texts are compared exactly.
 * "uid" must stand before "key_name": a record with the two exchanged is not found by them. An
 * element without text (empty, or with a comment, an element or an entity reference first) holds
 * the empty text. A root that is itself a record is found as well; it takes no new records, and
 * is emptied where another would be deleted.
 *
 * @par Key text
 * Hexadecimal, either case. The two lengths in use are 64 characters (a 32-byte key) and 128 (a
 * 64-byte one).
 *
 * @par Texts
 * What is given to be stored comes back exactly as given, markup characters, line ends and UTF-8
 * included. A text that an XML file cannot hold, or that would not be read back, is refused:
 * control characters other than tab, line feed and carriage return, malformed UTF-8, U+FFFE and
 * U+FFFF, more than 10,000,000 bytes.
 *
 * @par Handles
 * A new handle is the largest one in both files and the volatile tree plus one, so the first is
 * "1", and the number of a deleted record that had the largest is given out again. Only records
 * directly below the root count. A text that is no number counts as 0, a negative one as the
 * largest: "-5" is followed by "-4". A file that is missing or does not parse does not count and
 * is not reported, so a broken file can lead to a handle that is in it already.
 *
 * Volatile keys live in a tree in memory until they are deleted or the process ends.
 *
 * @par Results
 * 0 is success, 1 is any failure; presence tests return a boolean. Messages go to standard
 * output, each as a line of its own where nothing else is said, whether its line end is quoted
 * below or not. libxml2's own error reports are kept off standard error, which would show pieces
 * of a malformed file, keys included.
 *
 * @par Saving
 * A store file is replaced as a whole: the new content goes to a sibling (the file's name with
 * ".saving" behind it) with the same owner and permissions, is flushed to the disk, and is
 * renamed over the file. After a kill, a power cut or a full disk the file holds the old content
 * or the new. When it could not be written (also when a signal interrupts the wait for the
 * disk), or when it could not be read again exactly (because of the file's own declarations or
 * encoding), the file is as it was, and the operation returns 1 after this message, with the
 * operation's name and the file's:
 *
 *     "[%s] error: could not save file %s\n"
 *
 * A symbolic link stays one: the file that it leads to is replaced. Of a file with several hard
 * links, only the name in the store gets the new content. Where permissions or the kind of file
 * stand in the way of the sibling or the renaming (a directory that is not writable, an owner that
 * cannot be kept, a mount point), the file is overwritten in place; only then can a kill leave half
 * a file, and another process read one. A write-protected file is not replaced.
 *
 * @par Threads
 * One mutex, private to the store, serialises reading and rewriting the store files, as told at
 * each function. The volatile tree is not covered by it: operations that use or change it
 * (add_volatile_key, add_volatile_based_key, and by way of handles and of their search also
 * add_nonvolatile_based_key, copy_private_key, delete_key_by_handle and delete_key_by_key_type)
 * must not run in one thread while another adds or deletes volatile keys. Nor do handles that
 * two threads make at the same time differ, if one of them is a volatile key's.
 *
 * @par Processes
 * An operation that changes a store file meanwhile holds an advisory lock (flock) on the working
 * directory and on the directories that symbolic links in the store's place lead to, so that
 * processes using this library do not undo each other's changes. Where the file system has no
 * such locks it goes on without.
 *
 * @par libxml2
 * Most operations call xmlCleanupParser when they are done, which libxml2 does not allow while
 * another thread is inside it. The library's own calls are kept apart from each other: threads
 * that use the store at the same time are counted, and the last one out cleans up. But a program
 * that uses libxml2 itself, in other threads, is exposed: such programs were seen to hang, to
 * crash, and to lose the error handler that they had set. A program of that kind keeps its
 * libxml2 work and its calls into this library apart, or uses a library built with
 * -DZENTRAVA_XML_CLEANUP=OFF, which leaves the call out, and calls xmlInitParser before it
 * starts its threads. An operation also must not be called while the calling thread is in the
 * middle of libxml2 work of its own.
 */
#ifndef ZENTRAVA_KEY_MANAGEMENT_UTILS_H
#define ZENTRAVA_KEY_MANAGEMENT_UTILS_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * @defgroup store_lookup Key store: lookup by UID and key name
 * @{
 */

/**
 * Looks up the handle and, if wanted, the metadata of a key. Both files are always read, the
 * private one first: when both hold the key, the public file's values are the ones returned. The
 * volatile tree is not searched. Without metadata in the record, metadata_out_buff stays as it is.
 *
 * @param[in]  uid                     NUL-terminated
 * @param[in]  key_name                NUL-terminated; null selects the first record of the UID
 * @param[out] metadata_out_buff       the metadata as text; may be null: none is returned then
 * @param[in]  metadata_out_buff_size  bytes, terminator included; all are zeroed when the text fits
 * @param[out] handle_out_buff         the handle as decimal text
 * @param[in]  handle_out_buff_size    bytes, terminator included; all are zeroed when the text fits
 *
 * @retval 0  The handle, the metadata, or both were returned. A handle that does not fit is not a
 *            failure when the metadata fits, nor the other way round: clear the buffers first to
 *            tell.
 * @retval 1  uid or handle_out_buff is null (no message), or nothing was returned.
 *
 * @par Messages
 *
 *     "[get_key_handle] error: could not parse file %s\n"   for each file that cannot be read
 *     "[get_key_handle] error: Handle output buffer size is not large enough to hold the handle string"
 *     "[get_key_handle] error: Metadata output buffer size is not large enough to hold the metadata string"
 *     "error: can't find key"                               nothing was returned
 *
 * @par Locking
 * Takes no lock. A file that another thread rewrites meanwhile is read as it was or as it becomes;
 * half of one is possible only where it is overwritten in place (see "Saving" at the head of this
 * file).
 *
 * @snippet key_lookup.c handle and metadata
 */
uint32_t get_key_handle(const char* uid, const char* key_name, char* metadata_out_buff,
                        unsigned int metadata_out_buff_size, char* handle_out_buff,
                        unsigned int handle_out_buff_size);

/**
 * Looks up a key and converts it into bytes. The private file is read first and wins; the public
 * file is read only if the private one lacks the key, cannot be read, or holds it without key text.
 * The volatile tree is not searched.
 *
 * @param[in]     uid            NUL-terminated
 * @param[in]     key_name       NUL-terminated; null selects the first record of the UID
 * @param[out]    key            the key; see _convert_hex_char_key_to_bytes for texts that are not
 *                               64 or 128 characters long
 * @param[in,out] key_buf_len_p  must not be null (not checked): the capacity of `key` in bytes,
 *                               then the length of the key in bytes. Also set when the buffer is
 *                               too small, so that the caller can come back with a larger one;
 *                               unchanged when no key is found.
 *
 * @retval 0  key and *key_buf_len_p are written.
 * @retval 1  uid or key is null (no message), no key was found, or the buffer is too small; `key`
 *            is not written.
 *
 * @par Messages
 *
 *     "[get_key] error: could not parse file %s\n"                      for each unreadable file
 *     "[get_key] Failed to extract raw key for uid/key-name %s/%s\n"    a record without key text
 *     "[get_key] error: can't find key"       no key found, or the buffer is too small (the same
 *                                             words: compare *key_buf_len_p before and after)
 *
 * @par Locking
 * The store's mutex is held while a file is read, and at no other time.
 *
 * @snippet key_lookup.c bytes of a key
 */
uint32_t get_key(const unsigned char* uid, const char* key_name, uint8_t* key,
                 uint32_t* key_buf_len_p);

/** @} */

/**
 * @defgroup store_add Key store: adding keys
 * @{
 */

/**
 * Adds a key without UID and name to the volatile tree, to be found by its handle only.
 *
 * A null argument ends the process through a failed assertion, in every build type.
 *
 * @param[in]  key_hex               NUL-terminated, any length; stored as given
 * @param[out] handle_out_buff       the new handle as decimal text; undefined on failure
 * @param[in]  handle_out_buff_size  bytes, terminator included; all are zeroed before the handle is
 *                                   written
 *
 * @retval 0  Added.
 * @retval 1  Not added.
 *
 * @par Messages
 *
 *     "[add_volatile_key] error: input parameter cannot be stored as XML text\n"
 *     "[add_volatile_key] Failed to retrieve Temporary Key Tree root node!"     no memory
 *     "error: size of output buffer for handle is not large enough", then
 *     "[add_volatile_key] error: could not get new key handle"   which no memory leads to as well
 *     "[add_volatile_key] error: could not add a key record\n"                  no memory
 *
 * @par Locking
 * Takes no lock; see "Threads" at the head of this file. Reads both store files for the new handle.
 *
 * @snippet adding_keys.c volatile key
 */
uint32_t add_volatile_key(const char* key_hex, char* handle_out_buff,
                          unsigned int handle_out_buff_size);

/**
 * Adds a key with UID and name to the volatile tree. A volatile key of the same UID and name is
 * never replaced; it is deleted by its handle. Messages carry the name of
 * add_nonvolatile_based_key.
 *
 * @param[in]  uid                   exactly 32 bytes and a terminator
 * @param[in]  key_name              NUL-terminated; the empty name is a name like any other
 * @param[in]  key                   exactly 64 bytes and a terminator; hexadecimal, but not looked
 *                                   at
 * @param[in]  metadata              NUL-terminated; null or empty leaves the element out
 * @param[out] handle_out_buff       the new handle as decimal text; undefined on failure
 * @param[in]  handle_out_buff_size  bytes, terminator included; all are zeroed before the handle is
 *                                   written
 *
 * @retval 0  Added.
 * @retval 1  Not added; without a message for a null uid, key_name, key or handle_out_buff.
 *
 * @par Messages
 *
 *     "[add_nonvolatile_based_key] error: size of input parameter (e.g., uid or key) is not valid"
 *     "[add_nonvolatile_based_key] error: input parameter cannot be stored as XML text\n"
 *     "[add_nonvolatile_based_key] error: could retrieve root element"          no memory
 *     "error: Cannot add key for uid 0x%s and key name %s! Key with same uid and key_name already exists\n"
 *     "error: size of output buffer for handle is not large enough", then
 *     "[add_nonvolatile_based_key] error: could not get new key handle"         which no memory
 *                                                                               leads to as well
 *     "[add_nonvolatile_based_key] error: could not add a key record\n"         no memory
 *
 * @par Locking
 * Takes no lock; see "Threads" at the head of this file. Reads both store files for the new handle.
 *
 * @snippet adding_keys.c volatile key with a name
 */
uint32_t add_volatile_based_key(const char* uid, const char* key_name, const char* key,
                                const char* metadata, char* handle_out_buff,
                                unsigned int handle_out_buff_size);

/**
 * Adds a key to a store file, or replaces one. The handle is not returned; get_key_handle tells it.
 * Whatever comes of it, a call that found the file readable takes at least five seconds: the
 * calling thread sleeps, without any lock, before it returns. Only a signal that the program handles
 * ends this sleep early.
 *
 * @param[in] uid             exactly 32 bytes and a terminator
 * @param[in] key_name        NUL-terminated; the empty name is a name like any other
 * @param[in] key             exactly 64 bytes and a terminator; hexadecimal, but not looked at
 * @param[in] metadata        NUL-terminated. New key: null or empty leaves the element out.
 *                            Replacement: null leaves the metadata as it is, the empty text empties
 *                            it.
 * @param[in] is_private_key  true for the private file, false for the public one
 * @param[in] allow_replace   whether a key of the same UID and name in this file is replaced; its
 *                            handle stays
 *
 * @retval 0  Added as a new record, behind the last child of the file's root.
 * @retval 1  Not added (without a message for a null uid, key_name or key); or REPLACED: a
 *            successful replacement returns 1 too, without a message.
 *
 * @par Messages
 *
 *     "[add_nonvolatile_based_key] error: size of input parameter (e.g., uid or key) is not valid"
 *     "[add_nonvolatile_based_key] error: input parameter cannot be stored as XML text\n"
 *     "[add_nonvolatile_based_key] error: could not parse file %s\n"
 *     "[add_nonvolatile_based_key] error: could retrieve root element after parsing file %s\n"
 *     "error: Cannot add key for uid 0x%s and key name %s! Key with same uid and key_name already exists\n"
 *                                           replacement not allowed; the file is rewritten
 *     "[add_nonvolatile_based_key] error: could not get new key handle"  no memory
 *     "[add_nonvolatile_based_key] error: could not add a key record\n"  no memory, or the root is
 *                                           itself a record: the search would not look inside
 *     "[add_nonvolatile_based_key] error: could not replace key"     no memory; the file is untouched
 *     "[add_nonvolatile_based_key] error: could not save file %s\n"
 *
 * @par Locking
 * The store's mutex and the lock between processes, from before the read to after the save.
 *
 * @snippet adding_keys.c key in a file
 */
uint32_t add_nonvolatile_based_key(const char* uid, const char* key_name, const char* key,
                                   const char* metadata, const bool is_private_key,
                                   const bool allow_replace);

/** @{ */
/**
 * Add a key to the private file under the name "crk", respectively "tmp_client_session_key",
 * without replacement: add_nonvolatile_based_key(uid, name, key_hex, metadata, true, false), whose
 * messages, locking and five seconds apply.
 *
 * @param[in] uid       exactly 32 bytes and a terminator
 * @param[in] key_hex   exactly 64 bytes and a terminator; hexadecimal, but not looked at
 * @param[in] metadata  NUL-terminated; null or empty leaves the element out
 *
 * @retval 0  Added.
 * @retval 1  Not added; without a message for a null uid or key_hex.
 *
 * @snippet adding_keys.c keys of fixed names
 */
uint32_t add_crk(const char* uid, const char* key_hex, const char* metadata);
uint32_t add_csk(const char* uid, const char* key_hex, const char* metadata);
/** @} */

/** @} */

/**
 * @defgroup store_remove Key store: removing keys
 * @{
 */

/**
 * Deletes the first record with this handle: the volatile tree is searched first, then the public
 * file, then the private one. The files are not touched for a volatile key.
 *
 * @param[in] handle  NUL-terminated; null ends the process through a failed assertion, in every
 *                    build type
 *
 * @retval 0  Deleted.
 * @retval 1  Not deleted.
 *
 * @par Messages
 *
 *     "error: could not parse file %s\n"
 *     "warn: missing data in key file %s\n"             the file has no root element
 *     "[delete_key_by_handle] error: could not save file %s\n"
 *     "error: can't find key with handle %s\n"
 *
 * @par Locking
 * For each file, the store's mutex and the lock between processes from before the read to after the
 * save. CAUTION: when a file cannot be read, the mutex stays locked. If that is the public file,
 * this call does not come back: it blocks on the private one. If it is the private one, every later
 * operation of the process that takes the mutex blocks. Make sure both files are readable.
 *
 * @snippet removing_keys.c by handle
 */
uint32_t delete_key_by_handle(const char* handle);

/**
 * Deletes the first record with this UID and name: the private file is searched first, then the
 * public one. Nothing is deleted while the volatile tree holds a key of this UID and name.
 *
 * A null argument ends the process through a failed assertion, in every build type.
 *
 * @param[in] uid       NUL-terminated
 * @param[in] key_name  NUL-terminated
 *
 * @retval 0  Deleted.
 * @retval 1  Not deleted (no message for a key that is volatile or was not found).
 *
 * @par Messages
 *
 *     "[delete_key_by_key_type] error: could not parse file %s\n"
 *     "[delete_key_by_key_type] warn: missing data in key file %s\n"   the file has no root element
 *     "[delete_key_by_key_type] error: could not save file %s\n"
 *
 * @par Locking
 * For each file, the store's mutex and the lock between processes from before the read to after the
 * save.
 *
 * @snippet removing_keys.c by UID and name
 */
uint32_t delete_key_by_key_type(const char* uid, const char* key_name);

/**
 * Deletes the UID's "crk": delete_key_by_key_type(uid, "crk"), whose messages and locking apply.
 *
 * @param[in] uid  NUL-terminated
 *
 * @retval 0  Deleted.
 * @retval 1  Not deleted; a null uid included, without a message.
 *
 * @snippet removing_keys.c crk
 */
uint32_t delete_crk(const char* uid);

/** @} */

/**
 * @defgroup store_copy Key store: copying keys
 * @{
 */

/**
 * Copies a key of the private file under another name of the same UID. The copy has a handle of its
 * own and no metadata.
 *
 * @param[in] uid        NUL-terminated
 * @param[in] key_name   NUL-terminated: the key to copy
 * @param[in] copy_name  NUL-terminated: the name of the copy
 *
 * @retval 0  Copied.
 * @retval 1  Not copied; without a message for a null argument.
 *
 * @par Messages
 *
 *     "[copy_prv_key] error: length of input parameter uid is not valid"        uid is empty
 *     "[copy_prv_key] error: input parameter cannot be stored as XML text\n"
 *     "[copy_prv_key] error: could not parse file %s\n"
 *     "[copy_prv_key] error: could retrieve root element after parsing file %s\n"
 *     "[copy_prv_key] error: Cannot add key for uid 0x%s and key name %s! Key with same uid and key_name already exists\n"
 *     "[copy_prv_key] error: no key with found with  uid=%s; key name=%s\n"   the file is rewritten
 *     "[copy_prv_key] error: Failed to extract key data from key with uid=%s; key name=%s\n"
 *     "[copy_prv_key] error: could not get new key handle"                      no memory
 *     "[copy_prv_key] error: could not add a key record\n"     no memory, or the root is itself a
 *                                           record: the search would not look inside
 *     "[copy_prv_key] error: could not save file %s\n"
 *
 * @par Locking
 * The store's mutex and the lock between processes, from before the read to after the save.
 *
 * @snippet removing_keys.c a copy
 */
uint32_t copy_private_key(const char* uid, const char* key_name, const char* copy_name);

/**
 * Overwrites the key text of the UID's "srk" by that of another record, an empty text included.
 * Both must be in the private file. The "srk" record keeps its handle and metadata.
 *
 * @param[in] uid     NUL-terminated; a null one finds nothing
 * @param[in] handle  NUL-terminated: the record to take the key text from; a null one finds nothing
 *
 * @retval 0  Overwritten.
 * @retval 1  Not overwritten; the file is untouched.
 *
 * @par Messages
 *
 *     "[key_driver.set_new_srk_key_data_for_uid] error: could not parse file %s\n"
 *     "[key_driver.set_new_srk_key_data_for_uid] error: Failed to find key type 'srk' for UID %s\n"
 *     "[key_driver.set_new_srk_key_data_for_uid] error: Failed to find key with handle %s\n"
 *     "[key_driver.set_new_srk_key_data_for_uid] error: Missing key data for handle %s\n"
 *                                                     the "srk" record has no "key" element
 *     "[key_driver.set_new_srk_key_data_for_uid] error: Missing key data field for srk with UID %s\n"
 *                                                     the other record has no key text
 *     "[key_driver.set_new_srk_key_data_for_uid] error: could not replace key"      no memory
 *     "[key_driver.set_new_srk_key_data_for_uid] error: could not save file %s\n"
 *
 * @par Locking
 * The store's mutex and the lock between processes, from before the read to after the save.
 *
 * @snippet removing_keys.c new srk
 */
uint32_t set_new_srk_key_data_for_uid(const char* uid, const char* handle);

/** @} */

/**
 * @defgroup store_text Key store: handing out key text
 * @{
 */

/** @name Text of a key
 * @{ */
/**
 * Hand out a key's text as it is stored: of the private file, in clear, respectively of the public
 * one.
 *
 * @param[in]     uid       NUL-terminated
 * @param[in]     key_name  NUL-terminated
 * @param[out]    hex_key   the text and its terminator
 * @param[in,out] key_len   the capacity of hex_key in bytes, which must exceed the text's length;
 *                          then that length, without the terminator. Unchanged on failure.
 *
 * @retval 0  Handed out.
 * @retval 1  Not handed out.
 *
 * @par Messages
 * With the function's name in brackets:
 *
 *     "[%s] error: bad argument!\n"                               an argument is null
 *     "[%s] error: length of input parameter uid is not valid\n"  uid is empty
 *     "[%s] error: could not parse file %s\n"                     with "(null)" for the file
 *     "[%s] error: could retrieve root element after parsing file %s\n"         likewise
 *     "[%s] error: no key with found with  uid=%s; key name=%s\n"
 *     "[%s] error: Failed to extract key data from key with uid=%s; key name=%s\n"
 *     "[%s] error: output buffer not large enough to hold key! uid=%s; key name=%s\n"
 *
 * @par Locking
 * The store's mutex is held while the file is read, and at no other time.
 *
 * @snippet key_lookup.c key text
 */
uint32_t export_prv_key_in_clear_as_hex(const char* uid, const char* key_name, char* hex_key,
                                        uint32_t* key_len);
uint32_t read_public_key_as_hex(const char* uid, const char* key_name, char* hex_key,
                                uint32_t* key_len);
/** @} */

/** @} */

/**
 * @defgroup store_presence Key store: presence in the private file
 * @{
 */

/**
 * Whether the private file holds a record with this UID and name. Neither the public file nor the
 * volatile tree is looked at.
 *
 * A null argument ends the process through a failed assertion, in every build type.
 *
 * @param[in] uid       NUL-terminated
 * @param[in] key_name  NUL-terminated
 *
 * @retval true   It does.
 * @retval false  It does not, or the file cannot be read.
 *
 * @par Messages
 *
 *     "[key_driver._prv_keyfile_contains_key(uid, key)] error: could not parse file %s\n"
 *
 * @par Locking
 * The store's mutex is held while the file is read, and at no other time.
 *
 * @snippet key_lookup.c presence
 */
bool _prv_keyfile_contains_key(const char* uid, const char* key_name);

/** @{ */
/**
 * Whether the private file holds the UID's "crk", respectively "tmp_client_session_key":
 * _prv_keyfile_contains_key, with a null argument allowed.
 *
 * @param[in] uid  NUL-terminated; null gives false, after a message
 *
 * @retval true   The private file holds the key.
 * @retval false  It does not, the file cannot be read, or uid is null.
 *
 * @par Messages
 * That of _prv_keyfile_contains_key, and by both functions, without a line end:
 *
 *     "[key_driver.contains_csk] ERROR input uid is NULL"
 *
 * @snippet key_lookup.c presence
 */
bool contains_crk(const char* uid);
bool contains_csk(const char* uid);
/** @} */

/**
 * Whether the private file holds a key of this UID and name: _prv_keyfile_contains_key, with null
 * arguments allowed.
 *
 * @param[in] uid      NUL-terminated; null gives false, after a message
 * @param[in] keyname  NUL-terminated; null gives false, after a message
 *
 * @retval true   The private file holds the key.
 * @retval false  It does not, the file cannot be read, or an argument is null.
 *
 * @par Messages
 * That of _prv_keyfile_contains_key, and without a line end:
 *
 *     "[key_driver.contains_csk] ERROR input uid or keyname is NULL"
 *
 * @snippet key_lookup.c presence
 */
bool contains_key(const char* uid, const char* keyname);

/** @} */

/**
 * @defgroup store_hexadecimal Key store: hexadecimal key text
 * @{
 */

/** @name Fixed lengths
 * @{ */
/**
 * Convert key text into exactly 64, respectively 32, bytes. A character that is not hexadecimal
 * counts as the digit 0, without an error. A shorter text is padded with zero bytes (an odd last
 * character gives the high half of its byte), a longer one is cut. No locks, no messages.
 *
 * @param[out] key     64, respectively 32, bytes; must not be null (not checked)
 * @param[in]  string  NUL-terminated; must not be null (not checked)
 *
 * @retval 0  Always.
 *
 * @snippet key_text.c fixed lengths
 */
uint32_t GetPublicKeyFromString(uint8_t* key, const char* string);
uint32_t GetPrivateKeyFromString(uint8_t* key, const char* string);
/** @} */

/**
 * Converts key text of any length. For L characters, n = (L + 1) / 2 bytes are written: with n = 32
 * and n = 64 as by the two functions above; with any other n the first n characters of the text as
 * they are, unconverted. So "a1b2c3" gives the three bytes 'a', '1', 'b'. No locks, no messages.
 *
 * @param[in]  keyContent       NUL-terminated; must not be null (not checked)
 * @param[out] raw_key          n bytes; must not be null (not checked)
 * @param[in]  raw_key_buf_len  capacity of raw_key in bytes
 *
 * @retval 0  n bytes are written.
 * @retval 1  n exceeds raw_key_buf_len; nothing is written.
 *
 * @snippet key_text.c any length
 */
uint32_t _convert_hex_char_key_to_bytes(const char* keyContent, uint8_t* raw_key,
                                        uint32_t raw_key_buf_len);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
