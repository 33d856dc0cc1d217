/* A reasoning plug-in for the loader and dispatch tests. One source built
   as several modules; compile definitions choose the behaviour:
     PLUGIN_TAG               prefix of every response text ("A", "B", ...)
     PLUGIN_NO_INIT           export no qvn_reasoning_init
     PLUGIN_NO_FINI           export no qvn_reasoning_fini
     PLUGIN_INIT_RC           status returned by init (default 0)
     PLUGIN_ABI               abi_version written by init (default 1)
     PLUGIN_FREE_FN           responses carry a counted release function;
                              otherwise the text is plain malloc memory
     PLUGIN_FORMAT_NO_PROMPT  format_prompt succeeds without a prompt
     PLUGIN_GENERATE_RC       generate hands out text it keeps, then fails
   A response reads TAG ":" query "|" context. No heap memory outlives a
   call except the response text, so a plug-in without fini leaks nothing. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "quorvane.h"
#include "test_plugin.h"

#define EXPORT __attribute__((visibility("default")))

#ifndef PLUGIN_TAG
#define PLUGIN_TAG "T"
#endif
#ifndef PLUGIN_INIT_RC
#define PLUGIN_INIT_RC 0
#endif
#ifndef PLUGIN_ABI
#define PLUGIN_ABI 1
#endif

static struct test_plugin_stats g_stats;

EXPORT struct test_plugin_stats *test_plugin_stats(void) { return &g_stats; }

#ifndef PLUGIN_NO_INIT

enum { PROMPT_CAP = 256, STATE_SLOTS = 4, HEADER = 16 };

struct plugin_state {
    char prompt[PROMPT_CAP];
};

/* Each init hands out the next slot, so successive instances have
   distinct states without touching the heap. */
static struct plugin_state g_states[STATE_SLOTS];

static int32_t format_prompt(void *state, const char *query, size_t query_len,
                             const char *context, size_t context_len,
                             const char **prompt_out, size_t *prompt_len_out) {
    struct plugin_state *s = (struct plugin_state *)state;
    ++g_stats.format_calls;
    g_stats.last_context_len = context_len;
    g_stats.last_context_was_empty = context_len == 0 && context && context[0] == '\0';
#ifdef PLUGIN_FORMAT_NO_PROMPT
    (void)s;
    (void)query;
    (void)query_len;
    (void)prompt_out;
    (void)prompt_len_out;
    return 0;
#else
    if (query_len > PROMPT_CAP - 1 || context_len > PROMPT_CAP - 1 - query_len) return 9;
    memcpy(s->prompt, query, query_len);
    s->prompt[query_len] = '|';
    if (context_len) memcpy(s->prompt + query_len + 1, context, context_len);
    *prompt_out = s->prompt;
    *prompt_len_out = query_len + 1 + context_len;
    return 0;
#endif
}

#ifdef PLUGIN_FREE_FN
/* The text sits HEADER bytes into its block, so only this function can
   release it; free() on the text itself would be an invalid free. */
static void release_response(qvn_ai_response *response) {
    ++g_stats.free_calls;
    free(response->text - HEADER);
}
#endif

static int32_t generate(void *state, const char *prompt, size_t prompt_len, char **text_out,
                        size_t *text_len_out, qvn_response_free_fn *free_out) {
    (void)state;
    ++g_stats.generate_calls;
#ifdef PLUGIN_GENERATE_RC
    static char kept[] = "kept by the plug-in";
    (void)prompt;
    (void)prompt_len;
    (void)free_out;
    *text_out = kept;
    *text_len_out = sizeof kept - 1;
    return PLUGIN_GENERATE_RC;
#else
    const size_t tag_len = strlen(PLUGIN_TAG);
    const size_t len = tag_len + 1 + prompt_len;
#ifdef PLUGIN_FREE_FN
    char *block = (char *)malloc(HEADER + len);
    if (!block) return 12;
    char *text = block + HEADER;
    *free_out = release_response;
#else
    char *text = (char *)malloc(len);
    if (!text) return 12;
    (void)free_out;
#endif
    memcpy(text, PLUGIN_TAG, tag_len);
    text[tag_len] = ':';
    memcpy(text + tag_len + 1, prompt, prompt_len);
    *text_out = text;
    *text_len_out = len;
    return 0;
#endif
}

EXPORT int32_t qvn_reasoning_init(reasoning_vfs *table) {
    struct plugin_state *s = &g_states[g_stats.init_calls % STATE_SLOTS];
    ++g_stats.init_calls;
    g_stats.last_init_state = s;
    table->state = s;
    table->abi_version = PLUGIN_ABI;
    table->format_prompt = format_prompt;
    table->generate = generate;
    return PLUGIN_INIT_RC;
}

#endif /* PLUGIN_NO_INIT */

#ifndef PLUGIN_NO_FINI
EXPORT void qvn_reasoning_fini(void *state) {
    ++g_stats.fini_calls;
    g_stats.last_fini_state = state;
}
#endif
