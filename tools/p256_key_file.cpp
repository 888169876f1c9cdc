// The structures are those of RFC 5208/5958 (PKCS #8), RFC 5915 (SEC 1) and RFC 5480
// (SubjectPublicKeyInfo), read with mbed TLS's ASN.1 functions rather than its key parser: that one
// tells of most refusals just that the format is invalid, and takes a private key whose public key
// is another's.

#include "p256_key_file.h"

#include <mbedtls/asn1.h>
#include <mbedtls/bignum.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/ecp.h>
#include <mbedtls/entropy.h>
#include <mbedtls/oid.h>
#include <mbedtls/pem.h>
#include <mbedtls/pkcs12.h>
#include <mbedtls/pkcs5.h>
#include <mbedtls/version.h>

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

using Bytes = std::vector<uint8_t>;

static const size_t NUMBER_SIZE = 32;                 // of coordinates and scalars
static const size_t POINT_SIZE = 1 + 2 * NUMBER_SIZE; // uncompressed
static const uint8_t UNCOMPRESSED_POINT = 0x04;       // in front of X and Y (SEC 1, 2.3.3)

// The order n of the base point (FIPS 186-4, D.1.2.3).
static const uint8_t ORDER[NUMBER_SIZE] = {
    0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
    0xbc, 0xe6, 0xfa, 0xad, 0xa7, 0x17, 0x9e, 0x84, 0xf3, 0xb9, 0xca, 0xc2, 0xfc, 0x63, 0x25, 0x51};

static const char* const MAKE_A_KEY =
    "make a P-256 key (openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256)";

// Where in the user's files a failure is.
struct Place {
    const std::string& file;
    int line; // 0 when lines mean nothing, as in DER
};

static Failure refused(const Place& place, const std::string& cause, const std::string& remedy)
{
    return {REFUSED, place.file, place.line, cause, remedy};
}

static Failure malformed(const Place& place)
{
    return refused(place, "is not a P-256 key in PEM or DER, or is damaged",
                   "give a PKCS #8, SEC 1 or SubjectPublicKeyInfo file");
}

static Failure failed(const std::string& cause, const std::string& remedy)
{
    return {FAILED, "", 0, cause, remedy};
}

void wipe_key(P256Key* key)
{
    explicit_bzero(key, sizeof *key);
}

// ---- Numbers and points

bool p256_scalar_is_in_range(const uint8_t scalar[32])
{
    static const uint8_t ZERO[NUMBER_SIZE] = {};
    return memcmp(scalar, ZERO, NUMBER_SIZE) != 0 && memcmp(scalar, ORDER, NUMBER_SIZE) < 0;
}

// The curve with a number and a point for a computation.
struct Curve {
    mbedtls_ecp_group group;
    mbedtls_mpi number;
    mbedtls_ecp_point point;
};

static bool open_curve(Curve* curve)
{
    mbedtls_ecp_group_init(&curve->group);
    mbedtls_mpi_init(&curve->number);
    mbedtls_ecp_point_init(&curve->point);
    return mbedtls_ecp_group_load(&curve->group, MBEDTLS_ECP_DP_SECP256R1) == 0;
}

// mbed TLS wipes what it frees.
static void close_curve(Curve* curve)
{
    mbedtls_ecp_point_free(&curve->point);
    mbedtls_mpi_free(&curve->number);
    mbedtls_ecp_group_free(&curve->group);
}

bool p256_point_is_on_curve(const uint8_t x[32], const uint8_t y[32])
{
    uint8_t point[POINT_SIZE] = {UNCOMPRESSED_POINT};
    memcpy(point + 1, x, NUMBER_SIZE);
    memcpy(point + 1 + NUMBER_SIZE, y, NUMBER_SIZE);
    Curve curve;
    const bool on_curve =
        open_curve(&curve) &&
        mbedtls_ecp_point_read_binary(&curve.group, &curve.point, point, sizeof point) == 0 &&
        mbedtls_ecp_check_pubkey(&curve.group, &curve.point) == 0;
    close_curve(&curve);
    return on_curve;
}

// For the blinding of a multiplication, which mbed TLS 3.x does not do without.
static int random_bytes(void*, unsigned char* bytes, size_t size)
{
    return getentropy(bytes, size) == 0 ? 0 : MBEDTLS_ERR_ENTROPY_SOURCE_FAILED;
}

// Multiplies the base point; false without memory or without random numbers.
static bool compute_public_key(P256Key* key)
{
    Curve curve;
    uint8_t point[POINT_SIZE];
    size_t size = 0;
    const bool computed =
        open_curve(&curve) &&
        mbedtls_mpi_read_binary(&curve.number, key->scalar, NUMBER_SIZE) == 0 &&
        mbedtls_ecp_mul(&curve.group, &curve.point, &curve.number, &curve.group.G, random_bytes,
                        nullptr) == 0 &&
        mbedtls_ecp_point_write_binary(&curve.group, &curve.point, MBEDTLS_ECP_PF_UNCOMPRESSED,
                                       &size, point, sizeof point) == 0;
    close_curve(&curve);
    if (computed) {
        memcpy(key->x, point + 1, NUMBER_SIZE);
        memcpy(key->y, point + 1 + NUMBER_SIZE, NUMBER_SIZE);
    }
    return computed;
}

static std::optional<Failure> take_scalar(const Place& place, const uint8_t* scalar, P256Key* key)
{
    if (!p256_scalar_is_in_range(scalar)) {
        return refused(place, "the private key is not within 1 to n - 1 of P-256", MAKE_A_KEY);
    }
    key->has_private = true;
    memcpy(key->scalar, scalar, NUMBER_SIZE);
    if (!compute_public_key(key)) {
        return failed("cannot compute the public key", "free some memory and try again");
    }
    return std::nullopt;
}

static std::optional<Failure> take_point(const Place& place, const uint8_t* x, const uint8_t* y,
                                         P256Key* key)
{
    if (!p256_point_is_on_curve(x, y)) {
        return refused(place, "the public key is not a point on the curve P-256",
                       "ask for the key again, it was damaged or made up");
    }
    *key = {};
    memcpy(key->x, x, NUMBER_SIZE);
    memcpy(key->y, y, NUMBER_SIZE);
    return std::nullopt;
}

std::optional<Failure> p256_key_of_scalar(const uint8_t scalar[32], P256Key* key)
{
    std::optional<Failure> failure = take_scalar({"", 0}, scalar, key);
    if (failure) {
        wipe_key(key);
    }
    return failure;
}

std::optional<Failure> p256_key_of_point(const uint8_t x[32], const uint8_t y[32], P256Key* key)
{
    return take_point({"", 0}, x, y, key);
}

static bool make_scalar(mbedtls_ctr_drbg_context* random, uint8_t scalar[32])
{
    Curve curve;
    const bool made = open_curve(&curve) &&
                      mbedtls_ecp_gen_privkey(&curve.group, &curve.number, mbedtls_ctr_drbg_random,
                                              random) == 0 &&
                      mbedtls_mpi_write_binary(&curve.number, scalar, NUMBER_SIZE) == 0;
    close_curve(&curve);
    return made;
}

std::optional<Failure> make_p256_key(P256Key* key)
{
    mbedtls_entropy_context entropy;
    mbedtls_ctr_drbg_context random;
    mbedtls_entropy_init(&entropy);
    mbedtls_ctr_drbg_init(&random);
    uint8_t scalar[NUMBER_SIZE] = {};
    const bool made =
        mbedtls_ctr_drbg_seed(&random, mbedtls_entropy_func, &entropy, nullptr, 0) == 0 &&
        make_scalar(&random, scalar);
    mbedtls_ctr_drbg_free(&random);
    mbedtls_entropy_free(&entropy);
    std::optional<Failure> failure =
        made ? p256_key_of_scalar(scalar, key)
             : failed("no random numbers are to be had", "look after the system's random source");
    explicit_bzero(scalar, sizeof scalar);
    return failure;
}

// ---- DER

// A stretch of DER, read from its front.
struct Der {
    unsigned char* at;
    const unsigned char* end;
};

static const int SEQUENCE = MBEDTLS_ASN1_CONSTRUCTED | MBEDTLS_ASN1_SEQUENCE;
static const int PARAMETERS = MBEDTLS_ASN1_CONTEXT_SPECIFIC | MBEDTLS_ASN1_CONSTRUCTED | 0;
static const int PUBLIC_KEY = MBEDTLS_ASN1_CONTEXT_SPECIFIC | MBEDTLS_ASN1_CONSTRUCTED | 1;

static size_t size_of(const Der& der)
{
    return static_cast<size_t>(der.end - der.at);
}

static bool next_is(const Der& der, int tag)
{
    return der.at < der.end && *der.at == tag;
}

static bool take(Der* der, int tag, Der* content)
{
    size_t size = 0;
    if (mbedtls_asn1_get_tag(&der->at, der->end, &size, tag) != 0) {
        return false;
    }
    *content = {der->at, der->at + size};
    der->at += size;
    return true;
}

// The bytes of a bit string that ends with a whole byte.
static bool take_bit_string(Der* der, Der* content)
{
    return take(der, MBEDTLS_ASN1_BIT_STRING, content) && content->at < content->end &&
           *content->at++ == 0;
}

static mbedtls_asn1_buf as_asn1(int tag, const Der& content)
{
    return {tag, size_of(content), content.at};
}

static bool is_oid(const Der& der, const char* oid, size_t size)
{
    return size_of(der) == size && memcmp(der.at, oid, size) == 0;
}

static std::string name_of_curve(const Der& oid)
{
    mbedtls_asn1_buf buffer = as_asn1(MBEDTLS_ASN1_OID, oid);
    mbedtls_ecp_group_id id = MBEDTLS_ECP_DP_NONE;
    if (mbedtls_oid_get_ec_grp(&buffer, &id) == 0) {
        const mbedtls_ecp_curve_info* info = mbedtls_ecp_curve_info_from_grp_id(id);
        if (info != nullptr) {
            return info->name;
        }
    }
    char digits[64];
    return mbedtls_oid_get_numeric_string(digits, sizeof digits, &buffer) > 0 ? digits : "unknown";
}

// The parameters of an elliptic-curve key: the name of P-256, or a refusal.
static std::optional<Failure> check_curve(const Place& place, Der parameters)
{
    if (next_is(parameters, SEQUENCE)) {
        return refused(place, "the key spells its curve out instead of naming it",
                       "convert it: openssl pkey -in " + place.file +
                           " -ec_param_enc named_curve -out named.pem");
    }
    Der oid;
    if (!take(&parameters, MBEDTLS_ASN1_OID, &oid)) {
        return malformed(place);
    }
    if (!is_oid(oid, MBEDTLS_OID_EC_GRP_SECP256R1,
                MBEDTLS_OID_SIZE(MBEDTLS_OID_EC_GRP_SECP256R1))) {
        return refused(place, "the key is on the curve " + name_of_curve(oid) + ", not on P-256",
                       MAKE_A_KEY);
    }
    return std::nullopt;
}

static std::optional<Failure> check_algorithm(const Place& place, Der algorithm)
{
    Der oid;
    if (!take(&algorithm, MBEDTLS_ASN1_OID, &oid)) {
        return malformed(place);
    }
    if (!is_oid(oid, MBEDTLS_OID_EC_ALG_UNRESTRICTED,
                MBEDTLS_OID_SIZE(MBEDTLS_OID_EC_ALG_UNRESTRICTED))) {
        return refused(place, "the key is of another kind (RSA or EdDSA, say), not on P-256",
                       MAKE_A_KEY);
    }
    return check_curve(place, algorithm);
}

// Whether a point's bytes, compressed or not, are those of the key.
static bool is_point_of(const P256Key& key, const Der& point)
{
    if (size_of(point) < 1 + NUMBER_SIZE || memcmp(point.at + 1, key.x, NUMBER_SIZE) != 0) {
        return false;
    }
    const uint8_t compressed_form = static_cast<uint8_t>(2 + (key.y[NUMBER_SIZE - 1] & 1));
    return size_of(point) == POINT_SIZE
               ? *point.at == UNCOMPRESSED_POINT &&
                     memcmp(point.at + 1 + NUMBER_SIZE, key.y, NUMBER_SIZE) == 0
               : size_of(point) == 1 + NUMBER_SIZE && *point.at == compressed_form;
}

// What is left of an ECPrivateKey behind its number, and behind its parameters.
static std::optional<Failure> check_public_part(const Place& place, Der rest, const P256Key& key)
{
    Der tagged;
    if (!next_is(rest, PUBLIC_KEY)) {
        return rest.at == rest.end ? std::nullopt : std::optional(malformed(place));
    }
    Der point;
    if (!take(&rest, PUBLIC_KEY, &tagged) || !take_bit_string(&tagged, &point) ||
        rest.at != rest.end) {
        return malformed(place);
    }
    if (!is_point_of(key, point)) {
        return refused(place, "the public key in the file is not that of its private key",
                       "ask for the key again, it was damaged or made up");
    }
    return std::nullopt;
}

// An ECPrivateKey behind its version. PKCS #8 names the curve outside of it, SEC 1 alone inside.
static std::optional<Failure> read_ec_private_key(const Place& place, Der der, bool curve_is_known,
                                                  P256Key* key)
{
    Der number;
    Der parameters;
    if (!take(&der, MBEDTLS_ASN1_OCTET_STRING, &number)) {
        return malformed(place);
    }
    if (next_is(der, PARAMETERS)) {
        if (!take(&der, PARAMETERS, &parameters)) {
            return malformed(place);
        }
        if (auto failure = check_curve(place, parameters)) {
            return failure;
        }
    } else if (!curve_is_known) {
        return refused(place, "the key does not tell which curve it is on", MAKE_A_KEY);
    }
    if (size_of(number) > NUMBER_SIZE) {
        return malformed(place);
    }
    uint8_t scalar[NUMBER_SIZE] = {};
    std::copy(number.at, const_cast<unsigned char*>(number.end),
              scalar + NUMBER_SIZE - size_of(number));
    std::optional<Failure> failure = take_scalar(place, scalar, key);
    explicit_bzero(scalar, sizeof scalar);
    return failure ? failure : check_public_part(place, der, *key);
}

// The rest of a PKCS #8 structure behind its version. Attributes that follow do not matter.
static std::optional<Failure> read_pkcs8(const Place& place, Der der, P256Key* key)
{
    Der algorithm;
    Der wrapped;
    Der ec_private_key;
    Der version;
    if (!take(&der, SEQUENCE, &algorithm)) {
        return malformed(place);
    }
    if (auto failure = check_algorithm(place, algorithm)) {
        return failure;
    }
    if (!take(&der, MBEDTLS_ASN1_OCTET_STRING, &wrapped) ||
        !take(&wrapped, SEQUENCE, &ec_private_key) || wrapped.at != wrapped.end ||
        !take(&ec_private_key, MBEDTLS_ASN1_INTEGER, &version)) {
        return malformed(place);
    }
    return read_ec_private_key(place, ec_private_key, true, key);
}

static std::optional<Failure> read_public_key(const Place& place, const Der& algorithm, Der der,
                                              P256Key* key)
{
    if (auto failure = check_algorithm(place, algorithm)) {
        return failure;
    }
    Der point;
    if (!take_bit_string(&der, &point) || point.at == point.end || der.at != der.end) {
        return malformed(place);
    }
    if (*point.at == 0x02 || *point.at == 0x03) {
        return refused(place, "the public key is compressed, its Y is left out",
                       "convert it: openssl ec -pubin -in " + place.file +
                           " -conv_form uncompressed -pubout -out uncompressed.pem");
    }
    if (size_of(point) != POINT_SIZE || *point.at != UNCOMPRESSED_POINT) {
        return refused(place, "the public key is not a point on the curve P-256",
                       "ask for the key again, it was damaged or made up");
    }
    return take_point(place, point.at + 1, point.at + 1 + NUMBER_SIZE, key);
}

static std::optional<Failure> read_der(const Place& place, Der file, const char* passphrase,
                                       P256Key* key);

// ---- Encrypted keys

static Failure passphrase_required(const Place& place)
{
    return refused(place, "the private key is encrypted", "give its passphrase, from a file");
}

static Failure wrong_passphrase(const Place& place)
{
    return refused(place, "the passphrase does not open the encrypted private key",
                   "give the passphrase that the key was encrypted with");
}

static Failure unknown_encryption(const Place& place)
{
    return refused(place, "the private key is encrypted in a way that cannot be read here",
                   "convert it: openssl pkcs8 -topk8 -v2 des3 -in " + place.file +
                       " -out converted.pem");
}

// mbed TLS 3.5 deprecates the functions that are not told the size of the output.
#if MBEDTLS_VERSION_NUMBER < 0x03050000
static int mbedtls_pkcs5_pbes2_ext(mbedtls_asn1_buf* parameters, int mode,
                                   const unsigned char* password, size_t password_size,
                                   const unsigned char* data, size_t size, unsigned char* output,
                                   size_t, size_t*)
{
    return mbedtls_pkcs5_pbes2(parameters, mode, password, password_size, data, size, output);
}

static int mbedtls_pkcs12_pbe_ext(mbedtls_asn1_buf* parameters, int mode,
                                  mbedtls_cipher_type_t cipher, mbedtls_md_type_t digest,
                                  const unsigned char* password, size_t password_size,
                                  const unsigned char* data, size_t size, unsigned char* output,
                                  size_t, size_t*)
{
    return mbedtls_pkcs12_pbe(parameters, mode, cipher, digest, password, password_size, data, size,
                              output);
}
#endif

// mbed TLS 2.28 knows DES and triple DES here. The openssl command's default, AES, is not read.
static int decrypt_pkcs8(const Der& oid, mbedtls_asn1_buf* parameters, const Der& encrypted,
                         const char* passphrase, Bytes* plain)
{
    const auto* password = reinterpret_cast<const unsigned char*>(passphrase);
    const size_t password_size = strlen(passphrase);
    mbedtls_asn1_buf oid_buffer = as_asn1(MBEDTLS_ASN1_OID, oid);
    mbedtls_md_type_t digest = MBEDTLS_MD_NONE;
    mbedtls_cipher_type_t cipher = MBEDTLS_CIPHER_NONE;
    size_t written = 0;
    if (is_oid(oid, MBEDTLS_OID_PKCS5_PBES2, MBEDTLS_OID_SIZE(MBEDTLS_OID_PKCS5_PBES2))) {
        return mbedtls_pkcs5_pbes2_ext(parameters, MBEDTLS_PKCS5_DECRYPT, password, password_size,
                                       encrypted.at, size_of(encrypted), plain->data(),
                                       plain->size(), &written);
    }
    if (mbedtls_oid_get_pkcs12_pbe_alg(&oid_buffer, &digest, &cipher) == 0) {
        return mbedtls_pkcs12_pbe_ext(parameters, MBEDTLS_PKCS12_PBE_DECRYPT, cipher, digest,
                                      password, password_size, encrypted.at, size_of(encrypted),
                                      plain->data(), plain->size(), &written);
    }
    return MBEDTLS_ERR_PKCS5_FEATURE_UNAVAILABLE;
}

// What a decryption made, with the padding at its end. A wrong passphrase can leave what looks like
// good padding by chance; the rest will not fit.
static std::optional<Failure> read_decrypted(const Place& place, const Der& plain, P256Key* key)
{
    Der der = plain;
    Der content;
    if (!take(&der, SEQUENCE, &content) || !next_is(content, MBEDTLS_ASN1_INTEGER)) {
        return wrong_passphrase(place);
    }
    return read_der(place, {plain.at, content.end}, nullptr, key);
}

static std::optional<Failure> read_encrypted_pkcs8(const Place& place, Der algorithm, Der der,
                                                   const char* passphrase, P256Key* key)
{
    Der oid;
    Der parameters;
    Der encrypted;
    if (!take(&algorithm, MBEDTLS_ASN1_OID, &oid) || !take(&algorithm, SEQUENCE, &parameters) ||
        !take(&der, MBEDTLS_ASN1_OCTET_STRING, &encrypted) || der.at != der.end) {
        return malformed(place);
    }
    if (passphrase == nullptr) {
        return passphrase_required(place);
    }
    Bytes plain(size_of(encrypted));
    mbedtls_asn1_buf buffer = as_asn1(SEQUENCE, parameters);
    const int result = decrypt_pkcs8(oid, &buffer, encrypted, passphrase, &plain);
    if (result == MBEDTLS_ERR_PKCS5_PASSWORD_MISMATCH ||
        result == MBEDTLS_ERR_PKCS12_PASSWORD_MISMATCH) {
        return wrong_passphrase(place);
    }
    if (result != 0) {
        return unknown_encryption(place);
    }
    return read_decrypted(place, {plain.data(), plain.data() + plain.size()}, key);
}

// One of the four structures, told apart by their first elements.
static std::optional<Failure> read_der(const Place& place, Der file, const char* passphrase,
                                       P256Key* key)
{
    Der der;
    Der first;
    if (!take(&file, SEQUENCE, &der) || file.at != file.end) {
        return malformed(place);
    }
    if (take(&der, SEQUENCE, &first)) {
        return next_is(der, MBEDTLS_ASN1_OCTET_STRING)
                   ? read_encrypted_pkcs8(place, first, der, passphrase, key)
                   : read_public_key(place, first, der, key);
    }
    if (!take(&der, MBEDTLS_ASN1_INTEGER, &first)) {
        return malformed(place);
    }
    if (next_is(der, SEQUENCE)) {
        return read_pkcs8(place, der, key);
    }
    if (next_is(der, MBEDTLS_ASN1_INTEGER)) {
        return refused(place, "the key is of another kind (RSA, say), not on P-256", MAKE_A_KEY);
    }
    return read_ec_private_key(place, der, false, key);
}

// ---- PEM

static const std::string_view PEM_BEGIN = "-----BEGIN ";
static const std::string_view PEM_DASHES = "-----";
static const std::string_view PEM_LABELS[] = {"PRIVATE KEY", "EC PRIVATE KEY", "PUBLIC KEY",
                                              "ENCRYPTED PRIVATE KEY"};

// A block of a PEM file, not decoded yet.
struct PemBlock {
    size_t offset; // of its first line
    std::string label;
};

static std::optional<PemBlock> next_block(std::string_view text, size_t from)
{
    const size_t offset = text.find(PEM_BEGIN, from);
    if (offset == text.npos) {
        return std::nullopt;
    }
    const size_t label = offset + PEM_BEGIN.size();
    const size_t label_end = text.find(PEM_DASHES, label);
    const size_t length = label_end == text.npos ? 0 : label_end - label;
    return PemBlock{offset, std::string(text.substr(label, length))};
}

static bool is_key_block(const PemBlock& block)
{
    return std::find(std::begin(PEM_LABELS), std::end(PEM_LABELS), block.label) !=
           std::end(PEM_LABELS);
}

// The first block that is a key; failing that, the first of all, to tell what it is instead. A file
// of "openssl ecparam -genkey" has the curve's parameters in front of the key.
static std::optional<PemBlock> find_key_block(std::string_view text)
{
    std::optional<PemBlock> first = next_block(text, 0);
    for (auto block = first; block; block = next_block(text, block->offset + 1)) {
        if (is_key_block(*block)) {
            return block;
        }
    }
    return first;
}

static int line_of(std::string_view text, size_t offset)
{
    return 1 + static_cast<int>(
                   std::count(text.begin(), text.begin() + static_cast<long>(offset), '\n'));
}

static Failure pem_failure(const Place& place, int result)
{
    switch (result) {
    case MBEDTLS_ERR_PEM_PASSWORD_REQUIRED:
        return passphrase_required(place);
    case MBEDTLS_ERR_PEM_PASSWORD_MISMATCH:
        return wrong_passphrase(place);
    case MBEDTLS_ERR_PEM_UNKNOWN_ENC_ALG:
        return unknown_encryption(place);
    default:
        return malformed(place);
    }
}

// The encryption that PEM itself has (RFC 1421), unlike that of PKCS #8 inside it.
static bool is_encrypted_pem(std::string_view block, const std::string& begin)
{
    const size_t header = block.find_first_not_of("\r\n ", begin.size());
    return header != block.npos && block.substr(header).rfind("Proc-Type: 4,ENCRYPTED", 0) == 0;
}

// What a PEM block decodes to. mbed TLS 3.x keeps the members to itself, 2.28 has no function for them.
static Der content_of(mbedtls_pem_context* pem)
{
#if MBEDTLS_VERSION_MAJOR >= 3
    size_t size = 0;
    auto* bytes = const_cast<unsigned char*>(mbedtls_pem_get_buffer(pem, &size));
    return {bytes, bytes + size};
#else
    return {pem->buf, pem->buf + pem->buflen};
#endif
}

// `text` is followed by a NUL.
static std::optional<Failure> read_pem(const std::string& file_name, std::string_view text,
                                       const PemBlock& block, const char* passphrase, P256Key* key)
{
    const Place place = {file_name, line_of(text, block.offset)};
    if (!is_key_block(block)) {
        return refused(place, "is no P-256 key file but \"" + block.label + "\"", MAKE_A_KEY);
    }
    const std::string begin = "-----BEGIN " + block.label + "-----";
    const std::string end = "-----END " + block.label + "-----";
    mbedtls_pem_context pem;
    mbedtls_pem_init(&pem);
    size_t used = 0;
    const int result =
        mbedtls_pem_read_buffer(&pem, begin.c_str(), end.c_str(),
                                reinterpret_cast<const unsigned char*>(text.data() + block.offset),
                                reinterpret_cast<const unsigned char*>(passphrase),
                                passphrase != nullptr ? strlen(passphrase) : 0, &used);
    const Der der = content_of(&pem);
    std::optional<Failure> failure;
    if (result != 0) {
        failure = pem_failure(place, result);
    } else if (is_encrypted_pem(text.substr(block.offset), begin)) {
        failure = read_decrypted(place, der, key);
    } else {
        failure = read_der(place, der, passphrase, key);
    }
    mbedtls_pem_free(&pem); // wipes
    return failure;
}

std::optional<Failure> read_p256_key(const std::string& file_name, const uint8_t* bytes,
                                     size_t size, const char* passphrase, P256Key* key)
{
    *key = {};
    Bytes copy(size + 1); // PEM is read up to a NUL, and DER through pointers that are not const
    std::copy(bytes, bytes + size, copy.begin());
    const std::string_view text(reinterpret_cast<const char*>(copy.data()), size);
    const std::optional<PemBlock> block = find_key_block(text);
    std::optional<Failure> failure =
        block ? read_pem(file_name, text, *block, passphrase, key)
              : read_der({file_name, 0}, {copy.data(), copy.data() + size}, passphrase, key);
    if (failure) {
        wipe_key(key);
    }
    return failure;
}

bool p256_key_file_is_encrypted(const uint8_t* bytes, size_t size)
{
    P256Key key;
    const std::optional<Failure> without_passphrase = read_p256_key("", bytes, size, nullptr, &key);
    wipe_key(&key);
    return without_passphrase && without_passphrase->cause == passphrase_required({"", 0}).cause;
}

// ---- Writing

// Every part of these structures has a fixed size for P-256: what stands in front of the numbers
// is the same in every file.
static const uint8_t PKCS8_FRONT[] = {
    0x30, 0x81, 0x87, 0x02, 0x01, 0x00,                               // version 0
    0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, // id-ecPublicKey
    0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07,       // secp256r1
    0x04, 0x6d, 0x30, 0x6b, 0x02, 0x01, 0x01, 0x04, 0x20};            // ECPrivateKey, version 1
static const uint8_t SEC1_FRONT[] = {0x30, 0x77, 0x02, 0x01, 0x01, 0x04, 0x20};
static const uint8_t SEC1_CURVE[] = {0xa0, 0x0a, 0x06, 0x08, 0x2a, 0x86,
                                     0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
static const uint8_t EC_PUBLIC_KEY_FRONT[] = {0xa1, 0x44, 0x03, 0x42, 0x00, UNCOMPRESSED_POINT};
static const uint8_t SPKI_FRONT[] = {
    0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
    0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48,
    0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, UNCOMPRESSED_POINT};

static const size_t LARGEST_PEM = 512; // with the NUL at its end

template <size_t Size> static void append(Bytes* bytes, const uint8_t (&more)[Size])
{
    bytes->insert(bytes->end(), more, more + Size);
}

static void append_point(Bytes* bytes, const P256Key& key)
{
    append(bytes, key.x);
    append(bytes, key.y);
}

static void make_private_der(const P256Key& key, bool pkcs8, Bytes* der)
{
    if (pkcs8) {
        append(der, PKCS8_FRONT);
        append(der, key.scalar);
    } else {
        append(der, SEC1_FRONT);
        append(der, key.scalar);
        append(der, SEC1_CURVE);
    }
    append(der, EC_PUBLIC_KEY_FRONT);
    append_point(der, key);
}

static std::optional<Failure> encode_pem(const std::string& label, const Bytes& der, Bytes* out)
{
    const std::string begin = "-----BEGIN " + label + "-----\n";
    const std::string end = "-----END " + label + "-----\n";
    out->assign(LARGEST_PEM, 0);
    size_t size = 0; // with the NUL at the end
    if (mbedtls_pem_write_buffer(begin.c_str(), end.c_str(), der.data(), der.size(), out->data(),
                                 out->size(), &size) != 0) {
        out->clear();
        return failed("cannot write the key as PEM", "free some memory and try again");
    }
    out->resize(size - 1);
    return std::nullopt;
}

std::optional<Failure> write_p256_private_key(const P256Key& key, KeyFileFormat format,
                                              std::vector<uint8_t>* out)
{
    out->clear();
    if (!key.has_private) {
        return refused({"", 0}, "there is no private key, only a public one",
                       "export it as a public key");
    }
    const bool pkcs8 = format == PEM_PKCS8 || format == DER_PKCS8;
    if (format == DER_PKCS8 || format == DER_SEC1) {
        make_private_der(key, pkcs8, out);
        return std::nullopt;
    }
    Bytes der;
    make_private_der(key, pkcs8, &der);
    return encode_pem(pkcs8 ? "PRIVATE KEY" : "EC PRIVATE KEY", der, out);
}

std::optional<Failure> write_p256_public_key(const P256Key& key, bool pem,
                                             std::vector<uint8_t>* out)
{
    out->clear();
    Bytes der;
    append(&der, SPKI_FRONT);
    append_point(&der, key);
    if (pem) {
        return encode_pem("PUBLIC KEY", der, out);
    }
    *out = der;
    return std::nullopt;
}
