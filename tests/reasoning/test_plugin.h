/* Counters a test plug-in keeps about the calls it receives. The plug-in
   exports test_plugin_stats() returning a pointer to its own record; a test
   keeps the plug-in mapped with its own dlopen reference, so the record
   outlives the library's dlclose. */
#ifndef QVN_TESTS_TEST_PLUGIN_H
#define QVN_TESTS_TEST_PLUGIN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct test_plugin_stats {
    int init_calls;
    int fini_calls;
    int format_calls;
    int generate_calls;
    int free_calls;              /* calls of the plug-in's response release */
    void *last_init_state;       /* state handed out by the latest init */
    void *last_fini_state;       /* state received by the latest fini */
    size_t last_context_len;     /* as received by format_prompt */
    int last_context_was_empty;  /* context pointed at a NUL byte */
};

typedef struct test_plugin_stats *(*test_plugin_stats_fn)(void);

#ifdef __cplusplus
}
#endif

#endif
