// A test of the operations that change the key store: what one of them returns and prints, which
// files it touches and how long it pauses, and afterwards whether it has given everything back. For
// tests that include the store's unit; include this after it. Beside what store_watch.h wants,
// xmlSaveFile and xmlNewNode are to be named under WRAP.
#pragma once

#include "tests/support/deadline.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"
#include "tests/support/store_watch.h"
#include "tests/support/touched_files.h"
#include "tests/support/volatile_tree.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <ostream>
#include <string>
#include <vector>

using Pauses = std::vector<unsigned int>; // seconds of each

inline Pauses pauses;
inline bool saving_fails = false;
inline bool nodes_cannot_be_made = false;

extern "C" {
xmlNodePtr __real_xmlNewNode(xmlNsPtr name_space, const xmlChar* name);
xmlNodePtr __wrap_xmlNewNode(xmlNsPtr name_space, const xmlChar* name);

xmlNodePtr __wrap_xmlNewNode(xmlNsPtr name_space, const xmlChar* name)
{
    return nodes_cannot_be_made ? nullptr : __real_xmlNewNode(name_space, name);
}

int __real_xmlSaveFile(const char* file_name, xmlDocPtr document);
int __wrap_xmlSaveFile(const char* file_name, xmlDocPtr document);

// Written under another name first, of which the store file's is the beginning.
int __wrap_xmlSaveFile(const char* file_name, xmlDocPtr document)
{
    const std::string name = file_name;
    const size_t base = name.rfind('/') + 1;
    note("save " + name.substr(base, name.find(".xml") - base) + ".xml");
    return saving_fails ? -1 : __real_xmlSaveFile(file_name, document);
}

// Takes the place of the C library's.
unsigned int sleep(unsigned int seconds)
{
    pauses.push_back(seconds);
    note("sleep");
    EXPECT_FALSE(lock_is_held()) << "during the pause";
    EXPECT_FALSE(process_lock_is_held()) << "during the pause";
    return 0;
}
}

struct Outcome {
    uint32_t result;
    std::string printed;
    FileNames touched;
    Pauses paused;

    bool operator==(const Outcome& other) const
    {
        return result == other.result && printed == other.printed && touched == other.touched &&
               paused == other.paused;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome)
{
    return stream << "result " << outcome.result << ", printed "
                  << testing::PrintToString(outcome.printed) << ", touched "
                  << testing::PrintToString(outcome.touched) << ", paused "
                  << testing::PrintToString(outcome.paused);
}

template <typename Call> Outcome outcome_of(Call call)
{
    Outcome outcome = {};
    pauses.clear();
    store_events.clear();
    outcome.touched =
        touched_by([&] { outcome.printed = printed_by([&] { outcome.result = call(); }); });
    outcome.paused = pauses;
    return outcome;
}

// What happened in the last call, without the looks into documents.
inline Events steps()
{
    Events steps;
    for (const std::string& event : store_events) {
        if (event.compare(0, 6, "search") != 0) {
            steps.push_back(event);
        }
    }
    return steps;
}

template <typename Call> Events steps_of(Call call)
{
    outcome_of(call);
    return steps();
}

class ChangingStore : public StoreDirectory {
  protected:
    // Whatever a test did to the store, operations that need its locks go on.
    void TearDown() override
    {
        documents_seem_rootless = false;
        saving_fails = false;
        nodes_cannot_be_made = false;
        EXPECT_FALSE(process_lock_is_held());
        const Deadline deadline(60);
        printed_by([] { copy_private_key("U", "a name", "of no key"); });
        EXPECT_EQ(siblings(), FileNames());
        empty_volatile_tree();
        StoreDirectory::TearDown();
    }

    // What is there beside the store files.
    static FileNames siblings()
    {
        FileNames names;
        for (const auto& [name, state] : directory_state()) {
            if (name != PRIVATE_FILE && name != PUBLIC_FILE) {
                names.push_back(name);
            }
        }
        return names;
    }
};
