/* A reasoning plug-in built as several test modules: responses read
   "TAG:query" in malloc memory; NO_INIT, NO_FINI, INIT_RC, ABI make faults. */
#include <stdlib.h>
#include <string.h>

#include "quorvane.h"
#include "test_plugin.h"

struct plugin_stats qvn_test_stats;

#ifndef NO_INIT
static char states[4]; /* a distinct state for each instance */
static int32_t format(void *state, const char *q, size_t q_len, const char *c, size_t c_len,
                      const char **prompt, size_t *prompt_len) {
    (void)state, (void)c, (void)c_len;
    *prompt = q, *prompt_len = q_len;
    return 0;
}

static int32_t generate(void *state, const char *prompt, size_t len, char **text,
                        size_t *text_len, qvn_response_free_fn *free_fn) {
    (void)state, (void)free_fn;
    if (!(*text = (char *)malloc(len + 2))) return 12;
    (*text)[0] = TAG, (*text)[1] = ':';
    memcpy(*text + 2, prompt, len);
    *text_len = len + 2;
    return 0;
}

int32_t qvn_reasoning_init(reasoning_vfs *table) {
    table->state = qvn_test_stats.init_state = &states[qvn_test_stats.init++ % 4];
    table->abi_version = ABI;
    table->format_prompt = format;
    table->generate = generate;
    return INIT_RC;
}
#endif

#ifndef NO_FINI
void qvn_reasoning_fini(void *state) {
    ++qvn_test_stats.fini;
    qvn_test_stats.fini_state = state;
}
#endif
