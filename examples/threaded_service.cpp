/*
 * A service that tags messages in several threads. Each thread has a context of its own: a context
 * is for one thread at a time, and different ones are used at the same time. The key store takes
 * care of itself.
 *
 *     threaded_service [directory]
 *
 * Works on the key store of the directory, or makes one with a random root key ("srk").
 */
#include "example_support.h"

#include <array>
#include <cstdio>
#include <future>
#include <mutex>
#include <string>
#include <vector>

static const char DEVICE_UID[] = "0123456789abcdef0123456789abcdef";
static constexpr std::array<uint8_t, 4> AMTC0 = {0x20, 0x26, 0x11, 0x21};
static constexpr int WORKERS = 3;

struct Request {
    std::string message;
    std::array<uint8_t, 32> tag = {};
    bool verified = false;
};

struct Queue {
    std::mutex mutex;
    size_t next = 0;
    std::vector<Request> requests;
};

// A request belongs to the thread that took it.
static Request* take(Queue& queue)
{
    const std::lock_guard<std::mutex> guard(queue.mutex);
    return queue.next < queue.requests.size() ? &queue.requests[queue.next++] : nullptr;
}

static KeyLibraryErrorCode tag_and_check(const uint8_t* context_buf, Request& request)
{
    const auto* message = reinterpret_cast<const uint8_t*>(request.message.data());
    const auto len = static_cast<uint32_t>(request.message.size());
    const KeyLibraryErrorCode code =
        gen_session_sha256_hmac(context_buf, message, len, request.tag.data());
    return code != KeyLibrary_OK
               ? code
               : verify_session_sha256_hmac(context_buf, message, len, request.tag.data(),
                                            &request.verified);
}

static KeyLibraryErrorCode serve_until_done(const uint8_t* context_buf, Queue& queue)
{
    KeyLibraryErrorCode code = set_srk_as_hmac_root_signing_key(context_buf, false);
    if (code == KeyLibrary_OK) {
        code = derive_hmac_session_key(context_buf, AMTC0.data(), AMTC0.size(), false);
    }
    while (code == KeyLibrary_OK) {
        Request* request = take(queue);
        if (request == nullptr) {
            break;
        }
        code = tag_and_check(context_buf, *request);
    }
    return code;
}

// What a thread does, with a context of its own, from its opening to its closing.
static KeyLibraryErrorCode work(Queue& queue)
{
    KeyLibraryContext context = nullptr;
    auto* context_buf = reinterpret_cast<uint8_t*>(&context);
    KeyLibraryErrorCode code = key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf);
    if (code != KeyLibrary_OK) {
        return code;
    }
    code = serve_until_done(context_buf, queue);
    const KeyLibraryErrorCode closed = key_lib_close(context_buf); // wipes the keys
    return code != KeyLibrary_OK ? code : closed;
}

static bool service()
{
    Queue queue;
    for (int valve = 1; valve <= 12; ++valve) {
        queue.requests.push_back({"Close valve " + std::to_string(valve)});
    }
    std::printf("%zu messages, tagged by %d threads\n", queue.requests.size(), WORKERS);

    std::vector<std::future<KeyLibraryErrorCode>> workers;
    workers.reserve(WORKERS);
    for (int i = 0; i < WORKERS; ++i) {
        workers.push_back(std::async(std::launch::async, work, std::ref(queue)));
    }
    bool ok = true;
    for (size_t i = 0; i < workers.size(); ++i) { // waits for every thread, also after a failure
        const KeyLibraryErrorCode code = workers[i].get();
        ok = step("a thread's requests", code, "thread", std::to_string(i + 1).c_str()) && ok;
    }
    for (const Request& request : queue.requests) {
        std::array<char, 65> text = {};
        to_hex(text.data(), request.tag.data(), request.tag.size());
        ok = plain_step(request.message.c_str(), request.verified, "tag", text.data()) && ok;
    }
    return ok;
}

int main(int argc, char** argv)
{
    std::array<uint8_t, 32> root_key = {};
    std::array<char, 65> root_key_text = {};
    const stored_key private_keys[] = {{"srk", root_key_text.data()}, {nullptr, nullptr}};
    const stored_key no_keys[] = {{nullptr, nullptr}};
    if (!fill_random(root_key.data(), root_key.size())) {
        return end_example(false);
    }
    to_hex(root_key_text.data(), root_key.data(), root_key.size());
    wipe(root_key.data(), root_key.size());
    const bool begun = begin_example(argc, argv, DEVICE_UID, private_keys, no_keys);
    wipe(root_key_text.data(), root_key_text.size());
    return end_example(begun && service());
}
