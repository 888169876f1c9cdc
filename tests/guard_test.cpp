// Entering and leaving libxml2: when the parser's clean-up runs, who waits for whom, and what
// becomes of the error reports. The unit is compiled in, with the clean-up whatever the build says;
// the clean-up itself is replaced.
#include "key_driver/libxml2_guard.cpp"

#include "tests/support/deadline.h"
#include "tests/support/printed.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace std::chrono_literals;

bool initialised_alone = false;
std::atomic<int> clean_ups = 0;
std::function<void()> during_clean_up; // the next one

// Asks another thread's question of the guard.
bool guard_is_held()
{
    if (pthread_mutex_trylock(&guard) != 0) {
        return true;
    }
    pthread_mutex_unlock(&guard);
    return false;
}

} // namespace

extern "C" {
void __real_xmlInitParser();
void __wrap_xmlInitParser();
void __wrap_xmlInitParser()
{
    initialised_alone = guard_is_held();
    __real_xmlInitParser();
}

void __wrap_xmlCleanupParser();
void __wrap_xmlCleanupParser()
{
    ++clean_ups;
    if (const std::function<void()> action = std::exchange(during_clean_up, nullptr)) {
        action();
    }
}
}

namespace {

// A thread that takes one step after the other, each when it is told to.
class Companion {
  public:
    explicit Companion(std::function<void(Companion&)> work)
        : thread_([this, work] { work(*this); })
    {
    }

    ~Companion()
    {
        thread_.join();
    }

    // In the thread: tells the test that this point is reached, and waits to be released.
    void pause()
    {
        reached_.set_value();
        release_.get_future().wait();
    }

    void wait_until_paused()
    {
        reached_.get_future().wait();
    }

    void release()
    {
        release_.set_value();
    }

  private:
    std::promise<void> reached_;
    std::promise<void> release_;
    std::thread thread_;
};

class Guard : public testing::Test {
  protected:
    void SetUp() override
    {
        clean_ups = 0;
        during_clean_up = nullptr;
    }

    void TearDown() override
    {
        during_clean_up = nullptr;
        libxml2_enter(); // a wish that a failed test left behind
        libxml2_leave(true);
    }

  private:
    Deadline deadline_{60}; // for a thread that waits where it must not
};

// ---- Initialisation -----------------------------------------------------------------------------

// Threads that initialised libxml2 at the same time would each make the mutexes it consists of.
TEST_F(Guard, InitialisesTheParserBeforeItLetsTheNextThreadIn)
{
    initialised_alone = false;
    libxml2_enter();
    EXPECT_TRUE(initialised_alone);
    libxml2_leave(false);
}

// ---- Clean-up -----------------------------------------------------------------------------------

TEST_F(Guard, CleansUpAtOnceWhenTheThreadIsAlone)
{
    libxml2_enter();
    EXPECT_EQ(clean_ups, 0);
    libxml2_leave(true);
    EXPECT_EQ(clean_ups, 1);
}

TEST_F(Guard, DoesNotCleanUpWithoutAWish)
{
    libxml2_enter();
    libxml2_leave(false);
    EXPECT_EQ(clean_ups, 0);
}

TEST_F(Guard, CleansUpAgainForEachNewWish)
{
    for (int wish = 1; wish <= 3; ++wish) {
        libxml2_enter();
        libxml2_leave(true);
        EXPECT_EQ(clean_ups, wish);
    }
}

TEST_F(Guard, ForgetsAWishThatWasCarriedOut)
{
    libxml2_enter();
    libxml2_leave(true);
    libxml2_enter();
    libxml2_leave(false);
    EXPECT_EQ(clean_ups, 1);
}

TEST_F(Guard, LeavesTheCleanUpToTheEndOfTheOutermostStretch)
{
    libxml2_enter();
    libxml2_enter();
    libxml2_enter();
    libxml2_leave(true);
    libxml2_leave(false);
    EXPECT_EQ(clean_ups, 0);
    libxml2_leave(false);
    EXPECT_EQ(clean_ups, 1);
}

TEST_F(Guard, LeavesTheCleanUpToTheLastThreadOut)
{
    {
        Companion companion([](Companion& self) {
            libxml2_enter();
            self.pause();
            libxml2_leave(false); // no wish of its own
        });
        companion.wait_until_paused();
        libxml2_enter();
        libxml2_leave(true);
        EXPECT_EQ(clean_ups, 0);
        companion.release();
    }
    EXPECT_EQ(clean_ups, 1);
}

TEST_F(Guard, CleansUpOnceForTheWishesOfAllWhoWereInside)
{
    {
        Companion companion([](Companion& self) {
            libxml2_enter();
            self.pause();
            libxml2_leave(true);
        });
        companion.wait_until_paused();
        for (int i = 0; i < 5; ++i) {
            libxml2_enter();
            libxml2_leave(true);
        }
        EXPECT_EQ(clean_ups, 0);
        companion.release();
    }
    EXPECT_EQ(clean_ups, 1);
    libxml2_enter();
    libxml2_leave(false);
    EXPECT_EQ(clean_ups, 1);
}

TEST_F(Guard, CountsAnotherThreadsNestedStretchAsInside)
{
    Companion companion([](Companion& self) {
        libxml2_enter();
        libxml2_enter();
        libxml2_leave(true);
        self.pause();
        libxml2_leave(false);
    });
    companion.wait_until_paused();
    libxml2_enter();
    libxml2_leave(true);
    EXPECT_EQ(clean_ups, 0);
    companion.release();
}

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(Guard, LetsThreadsEnterAndLeaveWhileAnotherIsInside)
{
    libxml2_enter();
    std::future<void> passed = std::async(std::launch::async, [] {
        for (int i = 0; i < 100; ++i) {
            libxml2_enter();
            libxml2_leave(i % 2 == 0);
        }
    });
    EXPECT_EQ(passed.wait_for(10s), std::future_status::ready)
        << "a thread waits for another thread's stretch";
    libxml2_leave(false);
}

TEST_F(Guard, LetsNobodyInDuringACleanUp)
{
    std::future<void> entered;
    during_clean_up = [&entered] {
        entered = std::async(std::launch::async, [] {
            libxml2_enter();
            libxml2_leave(false);
        });
        EXPECT_EQ(entered.wait_for(200ms), std::future_status::timeout);
    };
    libxml2_enter();
    libxml2_leave(true);
    EXPECT_EQ(entered.wait_for(10s), std::future_status::ready);
}

// ---- Error reports ------------------------------------------------------------------------------

void parse_malformed_document()
{
    EXPECT_EQ(parsed("<keys><key>a secret</keys>"), nullptr);
}

void count_report(void* count, xmlErrorPtr)
{
    ++*static_cast<int*>(count);
}

// The application's own handler, for as long as a test needs it.
class ApplicationHandler {
  public:
    ApplicationHandler()
    {
        xmlSetStructuredErrorFunc(&count_, count_report);
    }

    ~ApplicationHandler()
    {
        xmlSetStructuredErrorFunc(nullptr, nullptr);
    }

    // Whether it is in force: a malformed document is reported to it.
    bool hears()
    {
        const int before = count_;
        parse_malformed_document();
        return count_ > before;
    }

  private:
    int count_ = 0;
};

TEST_F(Guard, SilencesTheApplicationsHandlerInsideAndPutsItBack)
{
    ApplicationHandler handler;
    EXPECT_TRUE(handler.hears());
    libxml2_enter();
    EXPECT_FALSE(handler.hears());
    libxml2_leave(false);
    EXPECT_TRUE(handler.hears());
}

TEST_F(Guard, PutsTheApplicationsHandlerBackAtTheEndOfTheOutermostStretch)
{
    ApplicationHandler handler;
    libxml2_enter();
    libxml2_enter();
    libxml2_leave(false);
    EXPECT_FALSE(handler.hears());
    libxml2_enter();
    libxml2_leave(true);
    EXPECT_FALSE(handler.hears());
    libxml2_leave(false);
    EXPECT_TRUE(handler.hears());
}

TEST_F(Guard, PutsTheHandlerBackBeforeItCleansUp)
{
    ApplicationHandler handler;
    bool back = false;
    during_clean_up = [&] {
        back = xmlStructuredError == count_report;
    };
    libxml2_enter();
    libxml2_leave(true);
    EXPECT_TRUE(back);
}

TEST_F(Guard, LeavesTheHandlersOfOtherThreadsInForce)
{
    bool other_thread_hears = false;
    libxml2_enter();
    std::thread([&other_thread_hears] {
        ApplicationHandler handler;
        other_thread_hears = handler.hears();
    }).join();
    libxml2_leave(false);
    EXPECT_TRUE(other_thread_hears);
}

TEST_F(Guard, SilencesAndPutsBackTheHandlersOfThreadsInsideAtTheSameTime)
{
    ApplicationHandler handler_of_this_thread;
    bool heard_inside = true;
    bool heard_afterwards = false;
    libxml2_enter();
    std::thread([&] {
        ApplicationHandler handler;
        libxml2_enter();
        heard_inside = handler.hears();
        libxml2_leave(false);
        heard_afterwards = handler.hears();
    }).join();
    libxml2_leave(false);
    EXPECT_FALSE(heard_inside);
    EXPECT_TRUE(heard_afterwards);
    EXPECT_TRUE(handler_of_this_thread.hears());
}

TEST_F(Guard, PrintsNothingOfAMalformedDocumentInside)
{
    libxml2_enter();
    EXPECT_EQ(complained_by(parse_malformed_document), "");
    libxml2_leave(false);
}

TEST_F(Guard, LetsLibxml2PrintAgainOutside)
{
    libxml2_enter();
    libxml2_leave(false);
    EXPECT_NE(complained_by(parse_malformed_document).find("a secret"), std::string::npos);
}

} // namespace
