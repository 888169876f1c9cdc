/*
 * Uses one key of the store in the working directory, through the library, as a device would:
 *
 *     tool_key_user UID OPERATION MESSAGE [ARGUMENT...]
 *
 * and prints "result " and what came of it, or "failed " and the function's result.
 */
#include <key_driver/zentrava_key_driver.h>
#include <key_driver/zentrava_key_management_utils.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const uint8_t amtc0[] = {0x20, 0x26, 0x11, 0x21};

static const uint8_t* message;
static uint32_t message_size;

static void print_result(const uint8_t* bytes, size_t size)
{
    printf("result ");
    for (size_t i = 0; i < size; ++i) {
        printf("%02x", bytes[i]);
    }
    printf("\n");
}

static void from_hex(uint8_t* bytes, size_t size, const char* text)
{
    for (size_t i = 0; i < size; ++i) {
        const char digits[3] = {text[2 * i], text[2 * i + 1], '\0'};
        bytes[i] = (uint8_t)strtoul(digits, NULL, 16);
    }
}

static KeyLibraryErrorCode root_tag(uint8_t* context,
                                    KeyLibraryErrorCode (*load)(const uint8_t*, bool))
{
    uint8_t tag[32];
    KeyLibraryErrorCode code = load(context, false);
    if (code == KeyLibrary_OK) {
        code = gen_root_sha256_hmac(context, message, message_size, tag);
    }
    if (code == KeyLibrary_OK) {
        print_result(tag, sizeof tag);
    }
    return code;
}

static KeyLibraryErrorCode session_tag(uint8_t* context)
{
    uint8_t tag[32];
    const KeyLibraryErrorCode code = gen_session_sha256_hmac(context, message, message_size, tag);
    if (code == KeyLibrary_OK) {
        print_result(tag, sizeof tag);
    }
    return code;
}

static KeyLibraryErrorCode stored_session_tag(uint8_t* context)
{
    const KeyLibraryErrorCode code = set_csk_as_hmac_session_signing_key(context, false);
    return code == KeyLibrary_OK ? session_tag(context) : code;
}

static KeyLibraryErrorCode agreed_session_tag(uint8_t* context, const char* peer_text)
{
    uint8_t peer[64];
    from_hex(peer, sizeof peer, peer_text);
    const KeyLibraryErrorCode code =
        derive_ecdh_session_key(context, peer, amtc0, sizeof amtc0, false);
    return code == KeyLibrary_OK ? session_tag(context) : code;
}

static KeyLibraryErrorCode signature(uint8_t* context)
{
    uint8_t made[64];
    KeyLibraryErrorCode code = set_ecdsa_signing_key(context, false);
    if (code == KeyLibrary_OK) {
        code = generate_ecdsa_signature(context, message, message_size, made);
    }
    if (code == KeyLibrary_OK) {
        print_result(made, sizeof made);
    }
    return code;
}

static KeyLibraryErrorCode verification(uint8_t* context, const char* signature_text)
{
    uint8_t given[64];
    bool verified = false;
    from_hex(given, sizeof given, signature_text);
    KeyLibraryErrorCode code = set_ecdsa_verification_key(context, false);
    if (code == KeyLibrary_OK) {
        code = verify_ecdsa_signature(context, message, message_size, given, &verified);
    }
    if (code == KeyLibrary_OK) {
        printf("result %s\n", verified ? "verified" : "refused");
    }
    return code;
}

static KeyLibraryErrorCode slot_signature(uint8_t* context, const char* slot)
{
    uint8_t made[64];
    KeyLibraryErrorCode code =
        set_kts_ecdsa_signing_key(context, (uint32_t)strtoul(slot, NULL, 10), false);
    if (code == KeyLibrary_OK) {
        code = generate_kts_ecdsa_signature(context, message, message_size, made);
    }
    if (code == KeyLibrary_OK) {
        print_result(made, sizeof made);
    }
    return code;
}

static KeyLibraryErrorCode slot_tag(uint8_t* context, const char* slot, const char* peer_text)
{
    uint8_t peer[64];
    uint8_t tag[32];
    from_hex(peer, sizeof peer, peer_text);
    KeyLibraryErrorCode code =
        set_kts_hmac_signing_key(context, (uint32_t)strtoul(slot, NULL, 10), peer, false);
    if (code == KeyLibrary_OK) {
        code = gen_kts_sha256_hmac(context, message, message_size, tag);
    }
    if (code == KeyLibrary_OK) {
        print_result(tag, sizeof tag);
    }
    return code;
}

static KeyLibraryErrorCode raw_key(const char* uid, const char* key_name)
{
    uint8_t key[128];
    uint32_t size = sizeof key;
    if (get_key((const unsigned char*)uid, key_name, key, &size) != 0) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    print_result(key, size);
    return KeyLibrary_OK;
}

static KeyLibraryErrorCode use_key(uint8_t* context, char** argv)
{
    const char* operation = argv[2];
    if (strcmp(operation, "srk") == 0) {
        return root_tag(context, set_srk_as_hmac_root_signing_key);
    }
    if (strcmp(operation, "crk") == 0) {
        return root_tag(context, set_crk_as_hmac_root_signing_key);
    }
    if (strcmp(operation, "tmp_client_session_key") == 0) {
        return stored_session_tag(context);
    }
    if (strcmp(operation, "ecdh_prv") == 0) {
        return agreed_session_tag(context, argv[4]);
    }
    if (strcmp(operation, "ecdsa_prv") == 0) {
        return signature(context);
    }
    if (strcmp(operation, "ECDSA_DS_PuK") == 0) {
        return verification(context, argv[4]);
    }
    if (strcmp(operation, "ecdsa_prv_slot") == 0) {
        return slot_signature(context, argv[4]);
    }
    if (strcmp(operation, "ecdh_prv_slot") == 0) {
        return slot_tag(context, argv[4], argv[5]);
    }
    return raw_key(argv[1], operation);
}

int main(int argc, char** argv)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    if (argc < 4 || key_lib_open(argv[1], NULL, NULL, context_buf) != KeyLibrary_OK) {
        return EXIT_FAILURE;
    }
    message = (const uint8_t*)argv[3];
    message_size = (uint32_t)strlen(argv[3]);
    const KeyLibraryErrorCode code = use_key(context_buf, argv);
    if (code != KeyLibrary_OK) {
        printf("failed %d\n", (int)code);
    }
    key_lib_close(context_buf);
    return code == KeyLibrary_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
