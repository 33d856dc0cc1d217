/* Loads a reasoning plug-in and runs one request through it.

   usage: reasoning_example /path/to/plugin.so [query] [context]

   The library accepts only an absolute, canonical plug-in path, so the
   host resolves the path it was given first. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quorvane.h"

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s PLUGIN [QUERY] [CONTEXT]\n", argv[0]);
        return 2;
    }
    const char *query = argc > 2 ? argv[2] : "Which rows are closest to the query?";
    const char *context = argc > 3 ? argv[3] : NULL;

    char path[PATH_MAX];
    if (!realpath(argv[1], path)) {
        perror(argv[1]);
        return 1;
    }

    qvn_context *ctx = qvn_new_minimal();
    if (!ctx) {
        fputs("out of memory\n", stderr);
        return 1;
    }
    int status = 1;
    if (qvn_load_reasoning(ctx, path) != 0) {
        fprintf(stderr, "%s\n", qvn_last_error(ctx));
        goto done;
    }

    qvn_ai_response response;
    const int32_t rc = qvn_dispatch_ai(ctx, query, strlen(query), context,
                                       context ? strlen(context) : 0, &response);
    if (rc != 0) {
        fprintf(stderr, "dispatch failed (%d): %s\n", (int)rc, qvn_last_error(ctx));
        goto done;
    }
    /* The text carries no promised NUL: print it by length. */
    printf("%.*s\n", (int)response.text_len, response.text);
    /* Release responses before the plug-in is unloaded by qvn_free. */
    qvn_ai_response_free(&response);
    status = 0;

done:
    qvn_free(ctx);
    return status;
}
