/* A minimal reasoning plug-in: the prompt is the query followed by the
   context, and the "generated" text is the prompt behind a fixed prefix.

   Build it as a shared library that exports qvn_reasoning_init (required)
   and qvn_reasoning_fini (optional), and load it with qvn_load_reasoning
   from its absolute, canonical path. */
#include <stdlib.h>
#include <string.h>

#include "quorvane.h"

#if defined(__GNUC__)
#define PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define PLUGIN_EXPORT
#endif

static const char echo_prefix[] = "echo: ";

/* Everything one loaded instance owns. The prompt buffer is the plug-in's:
   the library reads it during the call to generate and never frees it. */
struct echo_state {
    char *prompt;
    size_t prompt_cap;
};

static int32_t echo_format_prompt(void *state, const char *query, size_t query_len,
                                  const char *context, size_t context_len,
                                  const char **prompt_out, size_t *prompt_len_out) {
    struct echo_state *s = (struct echo_state *)state;
    const char separator[] = "\n\n";
    const size_t sep_len = context_len ? sizeof separator - 1 : 0;
    if (query_len > (size_t)-1 - sep_len - context_len) return 1;
    const size_t len = query_len + sep_len + context_len;
    if (len > s->prompt_cap) {
        char *grown = (char *)realloc(s->prompt, len);
        if (!grown) return 2;
        s->prompt = grown;
        s->prompt_cap = len;
    }
    memcpy(s->prompt, query, query_len);
    if (context_len) {
        memcpy(s->prompt + query_len, separator, sep_len);
        memcpy(s->prompt + query_len + sep_len, context, context_len);
    }
    *prompt_out = s->prompt;
    *prompt_len_out = len;
    return 0;
}

/* Releases a response made by echo_generate; the library calls it through
   the response record's free_fn. */
static void echo_free_response(qvn_ai_response *response) {
    free(response->text);
}

static int32_t echo_generate(void *state, const char *prompt, size_t prompt_len,
                             char **text_out, size_t *text_len_out,
                             qvn_response_free_fn *free_out) {
    (void)state;
    const size_t prefix_len = sizeof echo_prefix - 1;
    if (prompt_len > (size_t)-1 - prefix_len) return 1;
    char *text = (char *)malloc(prefix_len + prompt_len + 1);
    if (!text) return 2;
    memcpy(text, echo_prefix, prefix_len);
    memcpy(text + prefix_len, prompt, prompt_len);
    text[prefix_len + prompt_len] = '\0'; /* a courtesy: no NUL is required */
    *text_out = text;
    *text_len_out = prefix_len + prompt_len;
    /* Leaving *free_out NULL would make the library free() the text, which
       is equally right for malloc'd text; a release function lets the
       plug-in use any allocator. */
    *free_out = echo_free_response;
    return 0;
}

PLUGIN_EXPORT int32_t qvn_reasoning_init(reasoning_vfs *table) {
    struct echo_state *s = (struct echo_state *)calloc(1, sizeof *s);
    if (!s) return 1;
    table->state = s;
    table->abi_version = 1;
    table->format_prompt = echo_format_prompt;
    table->generate = echo_generate;
    return 0;
}

PLUGIN_EXPORT void qvn_reasoning_fini(void *state) {
    struct echo_state *s = (struct echo_state *)state;
    free(s->prompt);
    free(s);
}
