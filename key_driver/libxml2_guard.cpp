#include "libxml2_guard.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <pthread.h>

static pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;
static unsigned int threads_inside = 0; // stretches, to be exact: a nested one counts again
static bool clean_up_wanted = false;

// How the calling thread reported libxml2's errors before its outermost stretch.
struct ErrorReporting {
    xmlStructuredErrorFunc handler;
    void* context;
};
static thread_local unsigned int nesting = 0;
static thread_local ErrorReporting outside = {};
static thread_local bool memory_ran_out = false;

static void silence_error_reports()
{
    outside = {xmlStructuredError, xmlStructuredErrorContext};
    // The second parameter's type differs between libxml2's versions.
    xmlSetStructuredErrorFunc(nullptr, [](void*, auto error) {
        memory_ran_out =
            memory_ran_out || error->code == XML_ERR_NO_MEMORY || error->code == XML_IO_ENOMEM;
    });
}

static void restore_error_reports()
{
    xmlSetStructuredErrorFunc(outside.context, outside.handler);
}

static void clean_up_parser()
{
#ifndef ZENTRAVA_NO_XML_CLEANUP
    xmlCleanupParser();
#endif
}

void libxml2_enter()
{
    // A clean-up runs with the guard held, so that nobody comes in while it does. So does the
    // initialisation that has to follow it: threads that made it at the same time would each make
    // the mutexes that it consists of. It is silenced like the rest.
    pthread_mutex_lock(&guard);
    if (nesting++ == 0) {
        memory_ran_out = false;
        silence_error_reports();
    }
    xmlInitParser();
    ++threads_inside;
    pthread_mutex_unlock(&guard);
}

bool libxml2_ran_out_of_memory()
{
    return memory_ran_out;
}

void libxml2_leave(bool clean_up)
{
    // The handler is libxml2's per-thread state: put back while the thread still counts as inside.
    if (--nesting == 0) {
        restore_error_reports();
    }

    pthread_mutex_lock(&guard);
    clean_up_wanted = clean_up_wanted || clean_up;
    if (--threads_inside == 0 && clean_up_wanted) {
        clean_up_wanted = false;
        clean_up_parser();
    }
    pthread_mutex_unlock(&guard);
}
