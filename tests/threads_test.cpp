// Contexts in different threads, at work at the same time.
#include "tests/support/threads_at_work.h"

namespace {

using namespace std::chrono_literals;

TEST_F(ThreadsAtWork, LoadKeysAndMakeTagsAtTheSameTimeWithoutAWrongByte)
{
    work_for(3s);
}

} // namespace
