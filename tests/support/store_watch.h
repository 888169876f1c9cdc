// Watches the key store at its work: each read of a file, the look into it, the release of its
// document and each clean-up of the parser, in order, and whether the store's mutex and the lock
// between processes were held at that moment. For tests that include the store's unit; include this
// after it, and name xmlReadFile, xmlDocGetRootElement, xmlFreeDoc and xmlCleanupParser under WRAP.
#pragma once

#include "tests/support/process_lock.h"

#include <gtest/gtest.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <pthread.h>

#include <string>
#include <vector>

using Events = std::vector<std::string>;

inline Events store_events;

// Makes documents seem to be without a root element, which the parser never lets through.
inline bool documents_seem_rootless = false;

// Asks another thread's question of the mutex; it is a plain one, so its holder may ask as well.
inline bool lock_is_held()
{
    if (pthread_mutex_trylock(&lock) != 0) {
        return true;
    }
    pthread_mutex_unlock(&lock);
    return false;
}

inline void note(const std::string& event)
{
    store_events.push_back(event + (lock_is_held() ? ", locked" : "") +
                           (process_lock_is_held() ? ", locked between processes" : ""));
}

template <typename Call> Events events_of(Call call)
{
    store_events.clear();
    call();
    return store_events;
}

// A library that is built to leave the parser's clean-up out does everything else the same.
inline Events as_built([[maybe_unused]] Events events)
{
#ifdef ZENTRAVA_NO_XML_CLEANUP
    Events others;
    for (const std::string& event : events) {
        if (event != "clean up") {
            others.push_back(event);
        }
    }
    return others;
#else
    return events;
#endif
}

extern "C" {
xmlDocPtr __real_xmlReadFile(const char* name, const char* encoding, int options);
xmlNodePtr __real_xmlDocGetRootElement(const xmlDoc* document);
void __real_xmlFreeDoc(xmlDocPtr document);
void __real_xmlCleanupParser();

xmlDocPtr __wrap_xmlReadFile(const char* name, const char* encoding, int options);
xmlNodePtr __wrap_xmlDocGetRootElement(const xmlDoc* document);
void __wrap_xmlFreeDoc(xmlDocPtr document);
void __wrap_xmlCleanupParser();

xmlDocPtr __wrap_xmlReadFile(const char* name, const char* encoding, int options)
{
    note(std::string("read ") + name);
    EXPECT_EQ(encoding, nullptr);
    EXPECT_EQ(options, 0);
    return __real_xmlReadFile(name, encoding, options);
}

xmlNodePtr __wrap_xmlDocGetRootElement(const xmlDoc* document)
{
    note("search");
    return documents_seem_rootless ? nullptr : __real_xmlDocGetRootElement(document);
}

void __wrap_xmlFreeDoc(xmlDocPtr document)
{
    if (document != nullptr) {
        note("free");
    }
    __real_xmlFreeDoc(document);
}

void __wrap_xmlCleanupParser()
{
    note("clean up");
    __real_xmlCleanupParser();
}
}
