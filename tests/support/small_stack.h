// Running code in a thread with little stack: what needs stack in proportion to its input dies
// there.
#pragma once

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <pthread.h>
#include <stddef.h>

inline const size_t SMALL_STACK = 128 * 1024;

template <typename Call> void on_a_small_stack(Call call)
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, SMALL_STACK), 0);
    const auto start = [](void* argument) -> void* {
        (*static_cast<Call*>(argument))();
        return nullptr;
    };
    // libxml2 keeps a record for each thread but the one that initialised it, and loses it at a
    // clean-up. Let the new thread be the one, and this thread afterwards.
    xmlCleanupParser();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, start, &call), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    xmlCleanupParser();
    ASSERT_EQ(pthread_attr_destroy(&attributes), 0);
}
