/*
 * The key driver: a context for one device identity (UID), the keys loaded and derived into it,
 * and HMAC-SHA256 tags and ECDSA signatures made and checked with them.
 *
 * A request, from beginning to end (examples/typical_request.c is the whole program):
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

/* The result of every driver operation, 32 bits wide. */
typedef enum {
    /* Success; also when a load or derivation that is not forced finds its key in place. */
    KeyLibrary_OK = 0,
    /* Never returned by the driver; the key store's results share its value. */
    KeyLibrary_ERROR = 1,
    /* A required pointer is null, the context has no UID where one is required, or the length of a
       power-on AMTC0 value is not within 1..6. */
    KeyLibrary_BAD_PARAMETER = 2,
    /* An allocation failed. */
    KeyLibrary_MEMORY = 3,
    /* The key store did not deliver the key, whatever the cause (unknown, too long, a file that
       cannot be read), or the context key that the operation needs is not loaded. */
    KeyLibrary_KEY_NOT_FOUND = 4,
    /* The key store delivered a key that is too short, or the caller's key is under 32 bytes. */
    KeyLibrary_INVALID_KEY = 5,
    /* mbed TLS failed to compute an HMAC, or the elliptic-curve engine failed to sign or to agree
       on a secret. */
    KeyLibrary_CRYPTO = 6
} KeyLibraryErrorCode;

/* A context. Its record is private to the driver. */
typedef struct KeyLibraryContext_struct* KeyLibraryContext;

#pragma GCC visibility push(default)

/* ---- Context ------------------------------------------------------------------------------- */

/*
 * Opens a context for a device identity and stores its pointer into the location `context_buf`.
 *
 * uid                in, NUL-terminated, any length above 0. Copied. Every key store lookup of the
 *                    context uses it.
 * device_info_json   reserved: not read, may be null.
 * user_defined_data  reserved: not read, may be null.
 * context_buf        out, sizeof(void*) bytes, any alignment. Must not be null (not checked).
 *                    Written on success only.
 *
 * KeyLibrary_OK             the context is open; release it with key_lib_close
 * KeyLibrary_BAD_PARAMETER  uid is null or empty
 * KeyLibrary_MEMORY         an allocation failed. When it is the second one, for the copy of the
 *                           UID, the first, an empty context record, is lost.
 */
KeyLibraryErrorCode key_lib_open(const char* uid, const char* device_info_json,
                                 const uint8_t* user_defined_data, uint8_t* context_buf);

/*
 * Closes a context: wipes and frees its keys, frees the copy of its UID and its record.
 *
 * Wiped are 32 bytes of each HMAC key and of the ECDSA signing key, the first 64 of the 65 bytes of
 * the peer's ECDH key and the first 33 of the 65 bytes of the ECDSA verification key. An HMAC key
 * that was set with more than 32 bytes keeps its tail in the freed memory. The two keys of KTS
 * slots are neither wiped nor freed.
 *
 * context_buf  in, may be null. The location keeps the pointer, which is stale from here on; do
 *              not use it again.
 *
 * KeyLibrary_OK  always, for a null context_buf too
 */
KeyLibraryErrorCode key_lib_close(uint8_t* context_buf);

/*
 * Drops every key and derived value of a context, and keeps the context and its UID: afterwards it
 * is as key_lib_open left it. Keys are wiped and freed as by key_lib_close; the keys of KTS slots
 * are dropped without being wiped or freed. The remembered AMTC0 value and KTS slot are forgotten.
 *
 * context_buf  in
 *
 * KeyLibrary_OK             done
 * KeyLibrary_BAD_PARAMETER  context_buf is null
 */
KeyLibraryErrorCode key_lib_clear_keys(const uint8_t* context_buf);

/* ---- Key selection -------------------------------------------------------------------------
 *
 * Five functions load a key of the context's UID from the key store:
 *
 *   function                             key name in the store     bytes  used as
 *   set_srk_as_hmac_root_signing_key     "srk"                     32     HMAC root key
 *   set_crk_as_hmac_root_signing_key     "crk"                     32     HMAC root key
 *   set_csk_as_hmac_session_signing_key  "tmp_client_session_key"  32     HMAC session key
 *   set_ecdsa_signing_key                "ecdsa_prv"               32     ECDSA private key
 *   set_ecdsa_verification_key           "ECDSA_DS_PuK"            64     ECDSA public key: X, Y
 *
 * context_buf  in
 * force        false: a key in place stays, wherever it came from, and the store is not asked.
 *              true: the key is fetched anew, into the buffer that is in place.
 *
 * KeyLibrary_OK             loaded, or in place already
 * KeyLibrary_BAD_PARAMETER  context_buf is null; the context has no UID (not for "crk" and
 *                           "tmp_client_session_key", which leave that to the store: it answers
 *                           with a failure, and the result is KeyLibrary_KEY_NOT_FOUND)
 * KeyLibrary_MEMORY         no memory for the key's buffer; nothing is loaded
 * KeyLibrary_KEY_NOT_FOUND  the store did not deliver: no such key, a key longer than asked for, no
 *                           readable file. The buffer stays in place: a new one holds zeros, an old
 *                           one its old key. A later call without `force` therefore returns
 *                           KeyLibrary_OK without loading anything. After this result, call with
 *                           `force` or key_lib_clear_keys before the key is used.
 * KeyLibrary_INVALID_KEY    the store's key is shorter than required. The buffer was wiped and
 *                           freed; nothing is loaded. A stored text whose length is not that of a
 *                           32- or 64-byte key comes as unconverted characters (get_key), so such
 *                           a text ends here.
 *
 * "srk" and "crk" fill the same place: without `force`, the one loaded first stays.
 */
KeyLibraryErrorCode set_srk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_crk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_csk_as_hmac_session_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_ecdsa_signing_key(const uint8_t* context_buf, bool force);
KeyLibraryErrorCode set_ecdsa_verification_key(const uint8_t* context_buf, bool force);

/*
 * Two functions take the HMAC root key, respectively the HMAC session key, from the caller. They
 * always replace a key in place, and do not look at the UID or the remembered AMTC0 value.
 *
 * context_buf  in
 * key          in, key_len bytes; any bytes, not a text. Copied.
 * key_len      bytes, 32 or more. Only the first 32 are ever used by the HMAC operations. A new
 *              buffer takes all of them; a buffer in place takes the first 32.
 *
 * KeyLibrary_OK             set
 * KeyLibrary_BAD_PARAMETER  context_buf or key is null
 * KeyLibrary_INVALID_KEY    key_len is below 32; a key in place stays
 * KeyLibrary_MEMORY         no memory for the key's buffer; nothing is set
 */
KeyLibraryErrorCode set_hmac_root_signing_key(const uint8_t* context_buf, const char* key,
                                              uint32_t key_len);
KeyLibraryErrorCode set_hmac_session_key(const uint8_t* context_buf, const char* key,
                                         uint32_t key_len);

/* ---- HMAC-SHA256 (RFC 2104 with SHA-256 of FIPS 180-4) -------------------------------------- */

/*
 * Computes an HMAC-SHA256 tag under a key given by the caller. No context is needed.
 *
 * key       in, key_len bytes
 * key_len   bytes; must not be negative (not checked)
 * msg_buf   in, msg_size bytes; must not be null, an empty message included
 * msg_size  bytes; 0 or less is the empty message
 * digest    out, 32 bytes; undefined after a failure
 *
 * A null key, msg_buf or digest ends the process through a failed assertion, in every build type.
 *
 * KeyLibrary_OK      digest is written
 * KeyLibrary_CRYPTO  mbed TLS failed; one of these lines was printed, with its error code:
 *                    "  ! mbedtls_md_setup() returned -0x%04x\n"
 *                    "  ! mbedtls_md_hmac_starts() returned -0x%04x\n"
 *                    "  ! mbedtls_md_hmac_update() returned -0x%04x\n"
 *                    "  ! mbedtls_md_hmac_finish() returned -0x%04x\n"
 */
KeyLibraryErrorCode _sha256_hmac(const uint8_t* key, int key_len, const uint8_t* msg_buf,
                                 const int msg_size, uint8_t* digest);

/*
 * Make the HMAC-SHA256 tag of a message under the context's root key, respectively session key.
 *
 * context_buf  in
 * msg_buf      in, msg_len bytes; must not be null, an empty message included
 * msg_len      bytes, taken as a signed 32-bit count: from 2^31 on, the message counts as empty
 * digest       out, 32 bytes; undefined after KeyLibrary_CRYPTO, else written on success only
 *
 * KeyLibrary_OK             digest is written
 * KeyLibrary_BAD_PARAMETER  context_buf, msg_buf or digest is null
 * KeyLibrary_KEY_NOT_FOUND  the key is not loaded
 * KeyLibrary_CRYPTO         mbed TLS failed; it was reported as told at _sha256_hmac
 */
KeyLibraryErrorCode gen_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                         uint32_t msg_len, uint8_t* digest);
KeyLibraryErrorCode gen_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                            uint32_t msg_len, uint8_t* digest);

/*
 * Check the HMAC-SHA256 tag of a message under the context's root key, respectively session key.
 * Whether the tag holds is told by *verified, not by the result: look at both. The comparison is an
 * ordinary one, not constant-time.
 *
 * context_buf  in
 * msg          in, msg_len bytes; must not be null, an empty message included
 * msg_len      bytes, taken as a signed 32-bit count: from 2^31 on, the message counts as empty
 * sig          in, the tag to check, 32 bytes
 * verified     out; written with KeyLibrary_OK only
 *
 * KeyLibrary_OK             *verified is true if the tag is the message's, else false
 * KeyLibrary_BAD_PARAMETER  context_buf, msg, sig or verified is null
 * KeyLibrary_KEY_NOT_FOUND  the key is not loaded
 * KeyLibrary_CRYPTO         mbed TLS failed; it was reported as told at _sha256_hmac
 */
KeyLibraryErrorCode verify_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                            uint32_t msg_len, const uint8_t* sig, bool* verified);
KeyLibraryErrorCode verify_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                               uint32_t msg_len, const uint8_t* sig,
                                               bool* verified);

/*
 * Derives the session key: HMAC-SHA256(key = the root key, message = the power-on AMTC0 value). The
 * context remembers the value, and a repeat with the same value does nothing.
 *
 * "The same value" and a session key in place are all that the repeat looks at: a root key loaded
 * anew, or a session key that was loaded or set since, is not noticed. Use `force` then.
 *
 * context_buf       in
 * powerOnAmtc0      in, powerOnAmtc0_len bytes
 * powerOnAmtc0_len  bytes, 1..6
 * force             derive even if the session key for this value is in place
 *
 * KeyLibrary_OK             derived, or in place already
 * KeyLibrary_BAD_PARAMETER  context_buf or powerOnAmtc0 is null, or the length is not within 1..6
 * KeyLibrary_KEY_NOT_FOUND  no root key is loaded
 * KeyLibrary_MEMORY         no memory for the session key; none is loaded
 * KeyLibrary_CRYPTO         mbed TLS failed, and reported as told at _sha256_hmac. The session key
 *                           was freed (unwiped), none is loaded; the remembered value stays.
 */
KeyLibraryErrorCode derive_hmac_session_key(const uint8_t* context_buf, const uint8_t* powerOnAmtc0,
                                            uint32_t powerOnAmtc0_len, bool force);

/* ---- ECDSA over P-256 with SHA-256 (FIPS 186-4) ---------------------------------------------- */

/*
 * Sign a message with the context's ECDSA signing key, respectively the one of a KTS slot.
 *
 * context_buf  in
 * msg_buf      in, msg_len bytes; must not be null, an empty message included
 * msg_len      bytes, of which all are hashed, also from 2^31 on
 * signature    out, 64 bytes: r, then s, each 32 bytes, big-endian. After KeyLibrary_CRYPTO as
 *              ecdsa_sign (ecc/ecc.h) leaves it.
 *
 * KeyLibrary_OK             signature is written
 * KeyLibrary_BAD_PARAMETER  context_buf, msg_buf or signature is null
 * KeyLibrary_KEY_NOT_FOUND  the key is not loaded
 * KeyLibrary_CRYPTO         the engine failed to sign: no random numbers were to be had
 */
KeyLibraryErrorCode generate_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                             uint32_t msg_len, uint8_t* signature);
KeyLibraryErrorCode generate_kts_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                                 uint32_t msg_len, uint8_t* signature);

/*
 * Checks the ECDSA signature of a message under the context's verification key. Whether it holds is
 * told by *verified, not by the result: look at both.
 *
 * context_buf  in
 * msg          in, msg_len bytes; must not be null, an empty message included
 * msg_len      bytes
 * sig          in, 64 bytes: r, then s
 * verified     out; written with KeyLibrary_OK only
 *
 * KeyLibrary_OK             *verified is true if the signature is the message's, else false
 * KeyLibrary_BAD_PARAMETER  context_buf, msg, sig or verified is null
 * KeyLibrary_KEY_NOT_FOUND  no verification key is loaded
 */
KeyLibraryErrorCode verify_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg,
                                           uint32_t msg_len, const uint8_t* sig, bool* verified);

/* ---- ECDH over P-256 ------------------------------------------------------------------------- */

/*
 * Derives the session key from an ECDH agreement: HMAC-SHA256(key = the X coordinate of the point
 * shared by the device's private key, the store's "ecdh_prv", and the peer's public key; message =
 * the power-on AMTC0 value). The context remembers peer key and value; a repeat with both does
 * nothing. The peer key is not validated: whoever receives it from elsewhere checks it first.
 *
 * context_buf       in
 * ecdh_pub_key      in, 64 bytes: X, then Y, of the peer's public key. Kept in the context from the
 *                   moment it is looked at, also when the derivation fails later.
 * powerOnAmtc0      in, powerOnAmtc0_len bytes
 * powerOnAmtc0_len  bytes, 1..6
 * force             derive even if the session key for this peer and value is in place
 *
 * KeyLibrary_OK             derived, or in place already; OR THE HMAC FAILED: that is not reported.
 *                           It leaves no session key, so its use gives KeyLibrary_KEY_NOT_FOUND.
 * KeyLibrary_BAD_PARAMETER  context_buf, ecdh_pub_key or powerOnAmtc0 is null, or the length is not
 *                           within 1..6
 * KeyLibrary_MEMORY         no memory for the peer key or the session key
 * KeyLibrary_KEY_NOT_FOUND  the store did not deliver "ecdh_prv", also for a context without UID
 * KeyLibrary_INVALID_KEY    the store's "ecdh_prv" is shorter than 32 bytes
 * KeyLibrary_CRYPTO         the engine failed: no random numbers, or the agreement has no result
 */
KeyLibraryErrorCode derive_ecdh_session_key(const uint8_t* context_buf, const uint8_t* ecdh_pub_key,
                                            const uint8_t* powerOnAmtc0, uint32_t powerOnAmtc0_len,
                                            bool force);

/* ---- KTS slots -------------------------------------------------------------------------------
 *
 * A KTS slot is a pair of private keys in the store, "ecdsa_prv_slot_N" and "ecdh_prv_slot_N". N is
 * the slot number as a signed decimal: slot 4294967295 has the keys "..._slot_-1". The context
 * holds the keys of one slot at a time, and one slot number, which is that of the HMAC key. Neither
 * key_lib_close nor key_lib_clear_keys wipes or frees the two keys.
 */

/*
 * Loads the slot's ECDSA private key from the store.
 *
 * The slot number in the context is not changed, and it decides what is in place: with a key
 * loaded, and `force` false, this does nothing if set_kts_hmac_signing_key was last done for this
 * slot, even if the key loaded is another slot's. Call set_kts_hmac_signing_key first, or use
 * `force`.
 *
 * context_buf  in
 * slot_id      any number
 * force        fetch the key even if it counts as in place
 *
 * KeyLibrary_OK             loaded, or in place
 * KeyLibrary_BAD_PARAMETER  context_buf is null, or the context has no UID
 * KeyLibrary_MEMORY         no memory for the key's buffer; nothing is loaded
 * KeyLibrary_KEY_NOT_FOUND  the store did not deliver. The buffer stays in place: a new one holds
 *                           zeros, an old one its old key.
 * KeyLibrary_INVALID_KEY    the store's key is shorter than 32 bytes. As many bytes as it has were
 *                           wiped, the buffer was freed; nothing is loaded.
 */
KeyLibraryErrorCode set_kts_ecdsa_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                              bool force);

/*
 * Makes the slot's HMAC key: the X coordinate of the point shared by the slot's ECDH private key
 * and the peer's public key, as it is. The peer key is kept in the same place as the one of
 * derive_ecdh_session_key, and is not validated.
 *
 * context_buf   in
 * slot_id       any number; remembered in the context on success
 * ecdh_pub_key  in, 64 bytes: X, then Y. Kept in the context, also when a later step fails.
 * force         make the key even if the one for this slot and peer is in place
 *
 * KeyLibrary_OK             made, or in place already
 * KeyLibrary_BAD_PARAMETER  context_buf or ecdh_pub_key is null
 * KeyLibrary_MEMORY         no memory for the peer key or the HMAC key
 * KeyLibrary_KEY_NOT_FOUND  the store did not deliver, the context without a UID included
 * KeyLibrary_INVALID_KEY    the store's key is shorter than 32 bytes
 * KeyLibrary_CRYPTO         the engine failed: no random numbers, or the agreement has no result.
 *                           The key's buffer is in place with undefined contents: do not use it.
 */
KeyLibraryErrorCode set_kts_hmac_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                             const uint8_t* ecdh_pub_key, bool force);

/*
 * Makes the HMAC-SHA256 tag of a message under the context's KTS HMAC key: in everything else as
 * gen_root_sha256_hmac. There is no function to check such a tag; make it again and compare.
 */
KeyLibraryErrorCode gen_kts_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                        uint32_t msg_len, uint8_t* digest);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
