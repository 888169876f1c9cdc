// A library that leaves the parser's clean-up out, in a program with libxml2 work of its own.
#include "tests/support/threads_at_work.h"
#include "tests/support/xml_document.h"

#include <libxml/xmlerror.h>

#include <atomic>

namespace {

std::atomic<int> clean_ups = 0;

} // namespace

extern "C" {
void __wrap_xmlCleanupParser();
void __wrap_xmlCleanupParser()
{
    ++clean_ups;
}
}

namespace {

using namespace std::chrono_literals;

size_t children_of_root(const Document& document)
{
    size_t count = 0;
    for (const xmlNode* child = root_of(document)->children; child != nullptr;
         child = child->next) {
        ++count;
    }
    return count;
}

void count_report(void* count, xmlErrorPtr)
{
    ++*static_cast<int*>(count);
}

// What the application does with libxml2, again and again: documents that parse, and documents that
// do not and are reported to its own handler.
void parse_until(const std::atomic<bool>& done)
{
    std::string text = "<list>";
    for (int i = 0; i < 100; ++i) {
        text += "<item/>";
    }
    text += "</list>";

    int reports = 0;
    xmlSetStructuredErrorFunc(&reports, count_report);
    while (!done) {
        ASSERT_EQ(children_of_root(parsed(text)), 100u);
        reports = 0;
        ASSERT_EQ(parsed("<list><item></list>"), nullptr);
        ASSERT_GE(reports, 1);
    }
}

TEST_F(ThreadsAtWork, LeaveAnApplicationsOwnParsingAloneWithoutTheCleanUp)
{
    xmlInitParser(); // what libxml2 wants of a program before its threads start
    std::atomic<bool> done = false;
    std::thread application(parse_until, std::cref(done));
    work_for(3s);
    done = true;
    application.join();
}

TEST_F(ThreadsAtWork, NeverCallTheCleanUpThatWasLeftOut)
{
    work_for(0s);
    EXPECT_EQ(clean_ups, 0);
}

} // namespace
