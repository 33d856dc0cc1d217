/* Finds the corpus rows nearest to a query, both given as text. */
#include <stdio.h>
#include <string.h>

#include "quorvane.h"

int main(void) {
    /* Rows are separated by ';', numbers by commas or blanks. */
    const char corpus[] = "1 0 0; 0 1 0; 0 0 1; 0.7 0.7 0; 0.6 0.1 0.1";
    const char query[] = "0.9, 0.2, 0";
    const char params[] = "{}";

    qvn_context *ctx = qvn_new_minimal();
    if (!ctx) {
        fputs("out of memory\n", stderr);
        return 1;
    }
    const char *json = NULL;
    size_t json_len = 0;
    const int32_t rc = qvn_search(ctx, corpus, strlen(corpus), query, strlen(query), 2, params,
                                  strlen(params), &json, &json_len);
    if (rc != 0) {
        fprintf(stderr, "search failed (%d): %s\n", (int)rc, qvn_last_error(ctx));
        qvn_free(ctx);
        return 1;
    }
    /* The document lives in the Context until the next search or qvn_free. */
    printf("%.*s\n", (int)json_len, json);
    qvn_free(ctx);
    return 0;
}
