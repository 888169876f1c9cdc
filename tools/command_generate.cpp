// generate: random keys.

#include "commands.h"
#include "key_change.h"
#include "key_names.h"
#include "p256_key_file.h"
#include "random_key.h"
#include "record_output.h"
#include "user_file.h"

#include <stdio.h>

// What is made: the key, and for a pair also its public key.
struct Generated {
    NewKey key;
    std::optional<NewKey> for_verifier;
    std::string public_key; // PEM
};

static std::optional<Failure> kind_of(const GenerateOptions& options, const std::string& key_name,
                                      KeyKind* kind)
{
    const std::optional<KeyUse> use = driver_use_of(key_name);
    *kind = use ? use->kind : HMAC_KEY;
    if (options.kind != USUAL_FOR_NAME) {
        *kind = options.kind == GENERATED_HMAC ? HMAC_KEY : P256_PRIVATE_KEY;
    }
    if (use && use->kind != *kind) {
        return Failure{REFUSED, "", 0, "the library uses a key named " + key_name + " otherwise",
                       "leave out --type, or take another name"};
    }
    if (*kind == P256_PUBLIC_KEY) {
        return Failure{REFUSED, "", 0, key_name + " is the name of a public key",
                       "generate the private key, with --verifier for the public one"};
    }
    return std::nullopt;
}

static std::optional<Failure> make_pair(const GenerateOptions& options, Generated* generated)
{
    P256Key pair = {};
    std::vector<uint8_t> pem;
    std::optional<Failure> failure = make_p256_key(&pair);
    if (!failure) {
        failure = write_p256_public_key(pair, true, &pem);
    }
    if (!failure) {
        generated->key.key = hexadecimal(pair.scalar, sizeof pair.scalar);
        generated->public_key.assign(pem.begin(), pem.end());
    }
    if (!failure && options.verifier_uid) {
        generated->for_verifier =
            NewKey{PUBLIC_FILE, *options.verifier_uid, options.verifier_name,
                   hexadecimal(pair.x, sizeof pair.x) + hexadecimal(pair.y, sizeof pair.y),
                   options.metadata};
        failure = check_new_key(*generated->for_verifier);
    }
    wipe_key(&pair);
    return failure;
}

static bool has_file_for_public_key(const GenerateOptions& options)
{
    return options.public_key_file != "-";
}

static std::optional<Failure> refuse_public_key_of_hmac_key(const GenerateOptions& options)
{
    if (options.verifier_uid) {
        return Failure{USAGE, "", 0, "an HMAC key has no public key to store for a verifier",
                       "leave out --verifier, or say --type p256"};
    }
    if (has_file_for_public_key(options)) {
        return Failure{USAGE, "", 0, "an HMAC key has no public key to write to a file",
                       "leave out --public-key, or say --type p256"};
    }
    return std::nullopt;
}

static std::optional<Failure> make_key(const GenerateOptions& options, Generated* generated)
{
    KeyKind kind = HMAC_KEY;
    if (std::optional<Failure> failure = kind_of(options, generated->key.key_name, &kind)) {
        return failure;
    }
    std::optional<Failure> failure;
    if (kind == HMAC_KEY) {
        failure = refuse_public_key_of_hmac_key(options);
        failure = failure ? failure : random_hmac_key(&generated->key.key);
    } else {
        failure = make_pair(options, generated);
    }
    return failure ? failure : check_new_key(generated->key);
}

static bool goes_to_file(const GenerateOptions& options, const Generated& generated)
{
    return !generated.public_key.empty() && has_file_for_public_key(options);
}

// The public key's file comes last before the save, so that nothing else can fail behind it.
static std::optional<Failure> put_all(const Common& common, const GenerateOptions& options,
                                      const Generated& generated, Store* store, Change* change,
                                      bool* file_is_made)
{
    if (std::optional<Failure> failure =
            put_and_describe(store, generated.key, options.existing, change)) {
        return failure;
    }
    Change unused = {};
    if (generated.for_verifier) {
        if (std::optional<Failure> failure =
                put_and_describe(store, *generated.for_verifier, options.existing, &unused)) {
            return failure;
        }
    }
    if (goes_to_file(options, generated)) {
        if (std::optional<Failure> failure =
                write_user_file(common, options.public_key_file, generated.public_key, 0666)) {
            return failure;
        }
        *file_is_made = true;
    }
    return std::nullopt;
}

// Standard output is the public key's alone, if it goes there.
static void print_generated(const Common& common, const GenerateOptions& options,
                            const Generated& generated, const Change& change)
{
    nlohmann::ordered_json more = nlohmann::ordered_json::object();
    if (!generated.public_key.empty()) {
        more["public_key"] = generated.public_key;
    }
    const bool to_output = !generated.public_key.empty() && !goes_to_file(options, generated);
    print_change(common, "generate", change, to_output ? stderr : stdout, more);
    if (to_output && !common.json) {
        fputs(generated.public_key.c_str(), stdout);
    }
}

std::optional<Failure> run_generate(const Common& common, const GenerateOptions& options)
{
    Generated generated = {{PRIVATE_FILE, options.uid, "", "", options.metadata}, {}, ""};
    if (std::optional<Failure> failure =
            name_with_slot(options.key_name, options.slot, &generated.key.key_name)) {
        return failure;
    }
    if (std::optional<Failure> failure = make_key(options, &generated)) {
        return failure;
    }
    Change change = {};
    bool file_is_made = false;
    std::optional<Failure> failure = with_store(TO_CHANGE, [&](Store* store) {
        return put_all(common, options, generated, store, &change, &file_is_made);
    });
    if (!failure) {
        print_generated(common, options, generated, change);
    } else if (file_is_made) {
        remove_user_file(common, options.public_key_file);
    }
    return failure;
}
