/**
 * @file
 * The key driver: a context for one device identity (UID), the keys loaded and derived into it,
 * and HMAC-SHA256 tags and ECDSA signatures made and checked with them.
 *
 * A request, from beginning to end (examples/tag_and_verify.c is the whole program):
 *
 *     KeyLibraryContext context;
 *     uint8_t* context_buf = (uint8_t*)&context;
 *
 *     key_lib_open(uid, NULL, NULL, context_buf);
 *     set_srk_as_hmac_root_signing_key(context_buf, false);
 *     derive_hmac_session_key(context_buf, amtc0, amtc0_len, false);
 *     gen_session_sha256_hmac(context_buf, msg, msg_len, digest);
 *     key_lib_close(context_buf);
 *
 * The same from C++, with a root key instead:
 *
 * @snippet from_cpp.cpp from C++
 *
 * What holds for every function here:
 *
 * - `context_buf` is the address of a pointer-sized location that holds the context pointer, as a
 *   byte address. It may be unaligned. The location itself is read and, by key_lib_open alone,
 *   written; it must hold a context that is open. A null `context_buf` is an error that is
 *   reported (key_lib_close: accepted); a location with anything else in it is not detected.
 * - The result says it all: nothing is logged, and apart from the four messages of _sha256_hmac
 *   the driver prints nothing. Loading a key calls the key store, which prints messages of its own
 *   on standard output (zentrava_key_management_utils.h).
 * - No locks: a context is used by one thread at a time; different contexts may be used by
 *   different threads at the same time. Key store lookups serialise themselves.
 * - A key is loaded when its buffer is in place in the context. Keys are wiped with zeros before
 *   their memory is freed, with the lengths told at key_lib_close.
 *
 * mbed TLS keeps the working state of every HMAC, 236 bytes with the key under HMAC's two masks, in
 * memory that is never released: each call of a function that computes an HMAC costs that much.
 */
#ifndef ZENTRAVA_KEY_DRIVER_H
#define ZENTRAVA_KEY_DRIVER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup driver_context Key driver: results and contexts
 * @{
 */

/** The result of every driver operation, 32 bits wide. */
typedef enum {
    /** Success; also when a load or derivation that is not forced finds its key in place. */
    KeyLibrary_OK = 0,
    /** Never returned by the driver; the key store's results share its value. */
    KeyLibrary_ERROR = 1,
    /** A required pointer is null, the context has no UID where one is required, or the length of a
        power-on AMTC0 value is not within 1..6. */
    KeyLibrary_BAD_PARAMETER = 2,
    /** An allocation failed. */
    KeyLibrary_MEMORY = 3,
    /** The key store did not deliver the key, whatever the cause (unknown, too long, a file that
        cannot be read), or the context key that the operation needs is not loaded. */
    KeyLibrary_KEY_NOT_FOUND = 4,
    /** The key store delivered a key that is too short, or the caller's key is under 32 bytes. */
    KeyLibrary_INVALID_KEY = 5,
    /** mbed TLS failed to compute an HMAC, or the elliptic-curve engine failed to sign or to agree
        on a secret. */
    KeyLibrary_CRYPTO = 6
} KeyLibraryErrorCode;

/** A context. Its record is private to the driver. */
typedef struct KeyLibraryContext_struct* KeyLibraryContext;

#pragma GCC visibility push(default)

/**
 * Opens a context for a device identity and stores its pointer into the location `context_buf`.
 *
 * @param[in]  uid                NUL-terminated, any length above 0. Copied. Every key store lookup
 *                                of the context uses it.
 * @param[in]  device_info_json   reserved: not read, may be null
 * @param[in]  user_defined_data  reserved: not read, may be null
 * @param[out] context_buf        sizeof(void*) bytes, any alignment. Must not be null (not
 *                                checked). Written on success only.
 *
 * @retval KeyLibrary_OK             The context is open; release it with key_lib_close.
 * @retval KeyLibrary_BAD_PARAMETER  uid is null or empty.
 * @retval KeyLibrary_MEMORY         An allocation failed. When it is the second one, for the copy
 *                                   of the UID, the first, an empty context record, is lost.
 *
 * @snippet context.c open and close
 */
KeyLibraryErrorCode key_lib_open(const char* uid, const char* device_info_json,
                                 const uint8_t* user_defined_data, uint8_t* context_buf);

/**
 * Closes a context: wipes and frees its keys, frees the copy of its UID and its record.
 *
 * Wiped are 32 bytes of each HMAC key and of the ECDSA signing key, the first 64 of the 65 bytes of
 * the peer's ECDH key and the first 33 of the 65 bytes of the ECDSA verification key. An HMAC key
 * that was set with more than 32 bytes keeps its tail in the freed memory. The two keys of KTS
 * slots are neither wiped nor freed.
 *
 * @param[in] context_buf  may be null. The location keeps the pointer, which is stale from here on;
 *                         do not use it again.
 *
 * @retval KeyLibrary_OK  Always, for a null context_buf too.
 *
 * @snippet context.c open and close
 */
KeyLibraryErrorCode key_lib_close(uint8_t* context_buf);

/**
 * Drops every key and derived value of a context, and keeps the context and its UID: afterwards it
 * is as key_lib_open left it. Keys are wiped and freed as by key_lib_close; the keys of KTS slots
 * are dropped without being wiped or freed. The remembered AMTC0 value and KTS slot are forgotten.
 *
 * @param[in] context_buf  the context
 *
 * @retval KeyLibrary_OK             Done.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf is null.
 *
 * @snippet context.c clear
 */
KeyLibraryErrorCode key_lib_clear_keys(const uint8_t* context_buf);

/** @} */

/**
 * @defgroup driver_selection Key driver: key selection
 *
 * Five functions load a key of the context's UID from the key store:
 *
 *     function                             key name in the store     bytes  used as
 *     set_srk_as_hmac_root_signing_key     "srk"                     32     HMAC root key
 *     set_crk_as_hmac_root_signing_key     "crk"                     32     HMAC root key
 *     set_csk_as_hmac_session_signing_key  "tmp_client_session_key"  32     HMAC session key
 *     set_ecdsa_signing_key                "ecdsa_prv"               32     ECDSA private key
 *     set_ecdsa_verification_key           "ECDSA_DS_PuK"            64     ECDSA public key: X, Y
 *
 * "srk" and "crk" fill the same place: without `force`, the one loaded first stays.
 *
 * Two more take an HMAC key from the caller.
 *
 * @{
 */

/** @name Keys from the key store
 * @{ */
/**
 * Load a key of the context's UID from the key store, as the table above says.
 *
 * @param[in] context_buf  the context
 * @param[in] force        false: a key in place stays, wherever it came from, and the store is not
 *                         asked. true: the key is fetched anew, into the buffer that is in place.
 *
 * @retval KeyLibrary_OK             Loaded, or in place already.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf is null; the context has no UID (not for "crk" and
 *                                   "tmp_client_session_key", which leave that to the store: it
 *                                   answers with a failure, and the result is
 *                                   KeyLibrary_KEY_NOT_FOUND).
 * @retval KeyLibrary_MEMORY         No memory for the key's buffer; nothing is loaded.
 * @retval KeyLibrary_KEY_NOT_FOUND  The store did not deliver: no such key, a key longer than asked
 *                                   for, no readable file. The buffer stays in place: a new one
 *                                   holds zeros, an old one its old key. A later call without
 *                                   `force` therefore returns KeyLibrary_OK without loading
 *                                   anything. After this result, call with `force` or
 *                                   key_lib_clear_keys before the key is used.
 * @retval KeyLibrary_INVALID_KEY    The store's key is shorter than required. The buffer was wiped
 *                                   and freed; nothing is loaded. Wiped are 32 bytes of an HMAC key,
 *                                   of the other two only as many as the store's key has (and the
 *                                   byte in front of the public one): of a key that was in place
 *                                   before, the rest stays in the freed memory. The length of a key
 *                                   is half that of its text, rounded up, also where the text is
 *                                   handed out unconverted (get_key).
 *
 * @snippet loading_keys.c from the store
 *
 * @snippet loading_keys.c a failed load
 */
KeyLibraryErrorCode set_srk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_crk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_csk_as_hmac_session_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_ecdsa_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_ecdsa_verification_key(const uint8_t* context_buf, bool force);
/** @} */

/** @name Keys from the caller
 * @{ */
/**
 * Take the HMAC root key, respectively the HMAC session key, from the caller. They always replace a
 * key in place, and do not look at the UID or the remembered AMTC0 value.
 *
 * @param[in] context_buf  the context
 * @param[in] key          key_len bytes; any bytes, not a text. Copied.
 * @param[in] key_len      bytes, 32 or more. Only the first 32 are ever used by the HMAC
 *                         operations. A new buffer takes all of them; a buffer in place takes the
 *                         first 32.
 *
 * @retval KeyLibrary_OK             Set.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf or key is null.
 * @retval KeyLibrary_INVALID_KEY    key_len is below 32; a key in place stays.
 * @retval KeyLibrary_MEMORY         No memory for the key's buffer; nothing is set.
 *
 * @snippet loading_keys.c from the caller
 */
KeyLibraryErrorCode set_hmac_root_signing_key(const uint8_t* context_buf, const char* key,
                                              uint32_t key_len);
KeyLibraryErrorCode set_hmac_session_key(const uint8_t* context_buf, const char* key,
                                         uint32_t key_len);
/** @} */

/** @} */

/**
 * @defgroup driver_hmac Key driver: HMAC-SHA256
 *
 * HMAC of RFC 2104 with SHA-256 of FIPS 180-4, computed by mbed TLS.
 *
 * @{
 */

/**
 * Computes an HMAC-SHA256 tag under a key given by the caller. No context is needed.
 *
 * A null key, msg_buf or digest ends the process through a failed assertion, in every build type.
 *
 * @param[in]  key       key_len bytes
 * @param[in]  key_len   bytes; must not be negative (not checked)
 * @param[in]  msg_buf   msg_size bytes; must not be null, an empty message included
 * @param[in]  msg_size  bytes; 0 or less is the empty message
 * @param[out] digest    32 bytes; undefined after a failure
 *
 * @retval KeyLibrary_OK      digest is written.
 * @retval KeyLibrary_CRYPTO  mbed TLS failed, after one of the messages.
 *
 * @par Messages
 * With mbed TLS's error code:
 *
 *     "  ! mbedtls_md_setup() returned -0x%04x\n"
 *     "  ! mbedtls_md_hmac_starts() returned -0x%04x\n"
 *     "  ! mbedtls_md_hmac_update() returned -0x%04x\n"
 *     "  ! mbedtls_md_hmac_finish() returned -0x%04x\n"
 *
 * @snippet tags.c without a context
 */
KeyLibraryErrorCode _sha256_hmac(const uint8_t* key, int key_len, const uint8_t* msg_buf,
                                 const int msg_size, uint8_t* digest);

/** @{ */
/**
 * Make the HMAC-SHA256 tag of a message under the context's root key, respectively session key.
 *
 * @param[in]  context_buf  the context
 * @param[in]  msg_buf      msg_len bytes; must not be null, an empty message included
 * @param[in]  msg_len      bytes, taken as a signed 32-bit count: from 2^31 on, the message counts
 *                          as empty
 * @param[out] digest       32 bytes; undefined after KeyLibrary_CRYPTO, else written on success
 *                          only
 *
 * @retval KeyLibrary_OK             digest is written.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, msg_buf or digest is null.
 * @retval KeyLibrary_KEY_NOT_FOUND  The key is not loaded.
 * @retval KeyLibrary_CRYPTO         mbed TLS failed; it was reported as told at _sha256_hmac.
 *
 * @snippet tags.c make and check
 */
KeyLibraryErrorCode gen_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                         uint32_t msg_len, uint8_t* digest);
KeyLibraryErrorCode gen_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                            uint32_t msg_len, uint8_t* digest);
/** @} */

/** @{ */
/**
 * Check the HMAC-SHA256 tag of a message under the context's root key, respectively session key.
 * Whether the tag holds is told by *verified, not by the result: look at both. The comparison is an
 * ordinary one, not constant-time.
 *
 * @param[in]  context_buf  the context
 * @param[in]  msg          msg_len bytes; must not be null, an empty message included
 * @param[in]  msg_len      bytes, taken as a signed 32-bit count: from 2^31 on, the message counts
 *                          as empty
 * @param[in]  sig          the tag to check, 32 bytes
 * @param[out] verified     must not be null; written with KeyLibrary_OK only
 *
 * @retval KeyLibrary_OK             *verified is true if the tag is the message's, else false.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, msg, sig or verified is null.
 * @retval KeyLibrary_KEY_NOT_FOUND  The key is not loaded.
 * @retval KeyLibrary_CRYPTO         mbed TLS failed; it was reported as told at _sha256_hmac.
 *
 * @snippet tags.c make and check
 */
KeyLibraryErrorCode verify_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                            uint32_t msg_len, const uint8_t* sig, bool* verified);
KeyLibraryErrorCode verify_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                               uint32_t msg_len, const uint8_t* sig,
                                               bool* verified);
/** @} */

/**
 * Derives the session key: HMAC-SHA256(key = the root key, message = the power-on AMTC0 value). The
 * context remembers the value, and a repeat with the same value does nothing.
 *
 * "The same value" and a session key in place are all that the repeat looks at: a root key loaded
 * anew, or a session key that was loaded or set since, is not noticed. Use `force` then.
 *
 * @param[in] context_buf       the context
 * @param[in] powerOnAmtc0      powerOnAmtc0_len bytes
 * @param[in] powerOnAmtc0_len  bytes, 1..6
 * @param[in] force             derive even if the session key for this value is in place
 *
 * @retval KeyLibrary_OK             Derived, or in place already.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf or powerOnAmtc0 is null, or the length is not
 *                                   within 1..6.
 * @retval KeyLibrary_KEY_NOT_FOUND  No root key is loaded.
 * @retval KeyLibrary_MEMORY         No memory for the session key; none is loaded.
 * @retval KeyLibrary_CRYPTO         mbed TLS failed, and reported as told at _sha256_hmac. The
 *                                   session key was freed (unwiped), none is loaded; the remembered
 *                                   value stays.
 *
 * @snippet session_keys.c from the root key
 */
KeyLibraryErrorCode derive_hmac_session_key(const uint8_t* context_buf, const uint8_t* powerOnAmtc0,
                                            uint32_t powerOnAmtc0_len, bool force);

/** @} */

/**
 * @defgroup driver_ecdsa Key driver: ECDSA
 *
 * ECDSA of FIPS 186-4 over P-256 with SHA-256: mbed TLS hashes, the engine (ecc/ecc.h) signs and
 * verifies.
 *
 * @{
 */

/** @name Signing
 * @{ */
/**
 * Sign a message with the context's ECDSA signing key, respectively the one of a KTS slot.
 *
 * @param[in]  context_buf  the context
 * @param[in]  msg_buf      msg_len bytes; must not be null, an empty message included
 * @param[in]  msg_len      bytes, of which all are hashed, also from 2^31 on
 * @param[out] signature    64 bytes: r, then s, each 32 bytes, big-endian. After KeyLibrary_CRYPTO
 *                          as ecdsa_sign (ecc/ecc.h) leaves it.
 *
 * @retval KeyLibrary_OK             signature is written.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, msg_buf or signature is null.
 * @retval KeyLibrary_KEY_NOT_FOUND  The key is not loaded.
 * @retval KeyLibrary_CRYPTO         The engine failed to sign: no random numbers were to be had.
 *
 * @snippet signatures.c sign and verify
 *
 * @snippet kts_slots.c a signature
 */
KeyLibraryErrorCode generate_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                             uint32_t msg_len, uint8_t* signature);
KeyLibraryErrorCode generate_kts_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                                 uint32_t msg_len, uint8_t* signature);
/** @} */

/**
 * Checks the ECDSA signature of a message under the context's verification key. Whether it holds is
 * told by *verified, not by the result: look at both.
 *
 * @param[in]  context_buf  the context
 * @param[in]  msg          msg_len bytes; must not be null, an empty message included
 * @param[in]  msg_len      bytes, of which all are hashed, also from 2^31 on
 * @param[in]  sig          64 bytes: r, then s
 * @param[out] verified     must not be null; written with KeyLibrary_OK only
 *
 * @retval KeyLibrary_OK             *verified is true if the signature is the message's, else
 *                                   false.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, msg, sig or verified is null.
 * @retval KeyLibrary_KEY_NOT_FOUND  No verification key is loaded.
 *
 * @snippet signatures.c sign and verify
 */
KeyLibraryErrorCode verify_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg,
                                           uint32_t msg_len, const uint8_t* sig, bool* verified);

/** @} */

/**
 * @defgroup driver_ecdh Key driver: ECDH
 *
 * Agreement with a peer over P-256, computed by the engine (ecc/ecc.h).
 *
 * @{
 */

/**
 * Derives the session key from an ECDH agreement: HMAC-SHA256(key = the X coordinate of the point
 * shared by the device's private key, the store's "ecdh_prv", and the peer's public key; message =
 * the power-on AMTC0 value). The context remembers peer key and value; a repeat with both does
 * nothing. The peer key is not validated: whoever receives it from elsewhere checks it first.
 *
 * CAUTION: a failure leaves the session key that was in place, and the new peer key beside it. With
 * the remembered AMTC0 value, a call for this peer then takes the old key for the one derived, and
 * returns KeyLibrary_OK. Use `force` after a failure.
 *
 * @param[in] context_buf       the context
 * @param[in] ecdh_pub_key      64 bytes: X, then Y, of the peer's public key. Kept in the context
 *                              from the moment it is looked at, also when the derivation fails
 *                              later.
 * @param[in] powerOnAmtc0      powerOnAmtc0_len bytes
 * @param[in] powerOnAmtc0_len  bytes, 1..6
 * @param[in] force             derive even if the session key for this peer and value is in place
 *
 * @retval KeyLibrary_OK             Derived, or in place already; OR THE HMAC FAILED: that is not
 *                                   reported. It leaves no session key, so its use gives
 *                                   KeyLibrary_KEY_NOT_FOUND.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, ecdh_pub_key or powerOnAmtc0 is null, or the
 *                                   length is not within 1..6.
 * @retval KeyLibrary_MEMORY         No memory for the peer key or the session key.
 * @retval KeyLibrary_KEY_NOT_FOUND  The store did not deliver "ecdh_prv", also for a context
 *                                   without UID.
 * @retval KeyLibrary_INVALID_KEY    The store's "ecdh_prv" is shorter than 32 bytes.
 * @retval KeyLibrary_CRYPTO         The engine failed: no random numbers, or the agreement has no
 *                                   result.
 *
 * @snippet session_keys.c from an agreement
 */
KeyLibraryErrorCode derive_ecdh_session_key(const uint8_t* context_buf, const uint8_t* ecdh_pub_key,
                                            const uint8_t* powerOnAmtc0, uint32_t powerOnAmtc0_len,
                                            bool force);

/** @} */

/**
 * @defgroup driver_kts Key driver: KTS slots
 *
 * A KTS slot is a pair of private keys in the store, "ecdsa_prv_slot_N" and "ecdh_prv_slot_N". N is
 * the slot number as a signed decimal: slot 4294967295 has the keys "..._slot_-1". The context
 * holds the keys of one slot at a time, and one slot number, which is that of the HMAC key. Neither
 * key_lib_close nor key_lib_clear_keys wipes or frees the two keys.
 *
 * @{
 */

/**
 * Loads the slot's ECDSA private key from the store.
 *
 * The slot number in the context is not changed, and it decides what is in place: with a key
 * loaded, and `force` false, this does nothing if set_kts_hmac_signing_key was last done for this
 * slot (or, for slot 0, was not done yet), even if the key loaded is another slot's. Call
 * set_kts_hmac_signing_key first, or use `force`.
 *
 * @param[in] context_buf  the context
 * @param[in] slot_id      any number
 * @param[in] force        fetch the key even if it counts as in place
 *
 * @retval KeyLibrary_OK             Loaded, or in place.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf is null, or the context has no UID.
 * @retval KeyLibrary_MEMORY         No memory for the key's buffer; nothing is loaded.
 * @retval KeyLibrary_KEY_NOT_FOUND  The store did not deliver. The buffer stays in place: a new one
 *                                   holds zeros, an old one its old key.
 * @retval KeyLibrary_INVALID_KEY    The store's key is shorter than 32 bytes. As many bytes as it
 *                                   has were wiped, the buffer was freed; nothing is loaded.
 *
 * @snippet kts_slots.c a signature
 */
KeyLibraryErrorCode set_kts_ecdsa_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                              bool force);

/**
 * Makes the slot's HMAC key: the X coordinate of the point shared by the slot's ECDH private key
 * and the peer's public key, as it is. The peer key is kept in the same place as the one of
 * derive_ecdh_session_key, and is not validated.
 *
 * CAUTION: a failure leaves the new peer key, and of the HMAC key whatever there is. For the slot that
 * is remembered, a call for this peer then takes that for the key made, and returns KeyLibrary_OK. Use
 * `force` after a failure.
 *
 * @param[in] context_buf   the context
 * @param[in] slot_id       any number; remembered in the context on success
 * @param[in] ecdh_pub_key  64 bytes: X, then Y. Kept in the context, also when a later step fails.
 * @param[in] force         make the key even if the one for this slot and peer is in place
 *
 * @retval KeyLibrary_OK             Made, or in place already.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf or ecdh_pub_key is null.
 * @retval KeyLibrary_MEMORY         No memory for the peer key or the HMAC key.
 * @retval KeyLibrary_KEY_NOT_FOUND  The store did not deliver, the context without a UID included.
 * @retval KeyLibrary_INVALID_KEY    The store's key is shorter than 32 bytes.
 * @retval KeyLibrary_CRYPTO         The engine failed: no random numbers, or the agreement has no
 *                                   result. The key's buffer is in place with undefined contents:
 *                                   do not use it.
 *
 * @snippet kts_slots.c a tag
 */
KeyLibraryErrorCode set_kts_hmac_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                             const uint8_t* ecdh_pub_key, bool force);

/**
 * Makes the HMAC-SHA256 tag of a message under the context's KTS HMAC key: in everything else as
 * gen_root_sha256_hmac. There is no function to check such a tag; make it again and compare.
 *
 * @param[in]  context_buf  the context
 * @param[in]  msg_buf      msg_len bytes; must not be null, an empty message included
 * @param[in]  msg_len      bytes, taken as a signed 32-bit count: from 2^31 on, the message counts
 *                          as empty
 * @param[out] digest       32 bytes; undefined after KeyLibrary_CRYPTO, else written on success
 *                          only
 *
 * @retval KeyLibrary_OK             digest is written.
 * @retval KeyLibrary_BAD_PARAMETER  context_buf, msg_buf or digest is null.
 * @retval KeyLibrary_KEY_NOT_FOUND  The key is not made.
 * @retval KeyLibrary_CRYPTO         mbed TLS failed; it was reported as told at _sha256_hmac.
 *
 * @snippet kts_slots.c a tag
 */
KeyLibraryErrorCode gen_kts_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                        uint32_t msg_len, uint8_t* digest);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
