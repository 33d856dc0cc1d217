/* A host written in C: includes the public header, links the shared
   library and calls every export, including with NULL pointers, zero
   lengths and minimal Contexts where an ostrany one is needed. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "quorvane.h"

static int g_failed = 0;
static int g_passed = 0;

#define CHECK(cond)                                                      \
    do {                                                                 \
        if (cond) {                                                      \
            ++g_passed;                                                  \
        } else {                                                         \
            ++g_failed;                                                  \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__,       \
                    __LINE__, #cond);                                    \
        }                                                                \
    } while (0)

static int starts_with(const char *s, const char *prefix) {
    return strncmp(s, prefix, strlen(prefix)) == 0;
}

static void identity(void) {
    CHECK(strcmp(qvn_edition(), "Ambrel") == 0);
    CHECK(strcmp(qvn_storage(), "Ostrany") == 0);
    CHECK(strcmp(qvn_version(), "2.0.0") == 0);
    CHECK(strcmp(qvn_abi_version(), qvn_version()) == 0);
}

static void context_calls(void) {
    qvn_context *ctx = qvn_new_minimal();
    CHECK(ctx != NULL);
    CHECK(strcmp(qvn_last_error(ctx), "") == 0);
    CHECK(strcmp(qvn_last_error(NULL), "") == 0);
    qvn_release(ctx);
    qvn_release(ctx);
    qvn_release(NULL);
    qvn_free_string(NULL);
    qvn_free(ctx);
    qvn_free(NULL);
}

static void search_calls(void) {
    const char *corpus = "1,0;0,1;1,1";
    const char *expected =
        "{\"dim\":2,\"n_corpus\":3,\"best_fit\":0,\"best_point\":[1,0],"
        "\"top_k\":[{\"idx\":0,\"dist\":0},{\"idx\":2,\"dist\":0.29289321881345254}]}";
    const double rows[] = {1, 0, 0, 1, 1, 1};
    const double query[] = {1, 0};
    const char *json = (const char *)1;
    size_t len = 99;
    qvn_context *ctx = qvn_new_minimal();

    CHECK(qvn_search(ctx, corpus, strlen(corpus), "1,0", 3, 2, NULL, 0, &json, &len) == 0);
    CHECK(json != NULL && strcmp(json, expected) == 0);
    CHECK(len == strlen(expected));
    CHECK(qvn_search_ptr(ctx, rows, 3, 2, query, 2, 2, "{}", 2, &json, &len) == 0);
    CHECK(json != NULL && strcmp(json, expected) == 0);

    /* Bad input: out-parameters cleared, status and message set. */
    CHECK(qvn_search(NULL, corpus, 3, "1", 1, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(json == NULL && len == 0);
    CHECK(qvn_search(ctx, corpus, 3, NULL, 1, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(strcmp(qvn_last_error(ctx), "quorvane: invalid arguments") == 0);
    CHECK(qvn_search(ctx, corpus, 3, "1", 0, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search(ctx, corpus, 3, "1", 1, 1, NULL, 0, NULL, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search(ctx, corpus, 3, "1", 1, 1, NULL, 0, &json, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_search(ctx, corpus, 3, "1", 1, 0, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(strcmp(qvn_last_error(ctx), "quorvane: k must be >= 1") == 0);
    CHECK(qvn_search(ctx, NULL, 0, "x", 1, 1, NULL, 0, &json, &len) == QVN_ERR_PARSE);
    CHECK(starts_with(qvn_last_error(ctx), "quorvane: invalid number near"));
    CHECK(qvn_search_ptr(NULL, rows, 3, 2, query, 2, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search_ptr(ctx, rows, 3, 2, NULL, 2, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search_ptr(ctx, rows, 3, 2, query, 0, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search_ptr(ctx, NULL, 3, 2, query, 2, 1, NULL, 0, &json, &len) == QVN_ERR_INVALID);
    CHECK(qvn_search_ptr(ctx, rows, 3, 2, query, 1, 1, NULL, 0, &json, &len) == QVN_ERR_DIM);
    CHECK(json == NULL && len == 0);
    /* The message is cleared by the next successful search. */
    CHECK(qvn_search_ptr(ctx, NULL, 0, 0, query, 2, 1, NULL, 0, &json, &len) == 0);
    CHECK(strcmp(qvn_last_error(ctx), "") == 0);
    qvn_free(ctx);
}

static void vector_calls(void) {
    const float a[] = {1.0f, 2.0f}, b[] = {3.0f, 4.0f};
    float out = 0.0f, arr[4];
    CHECK(qvn_vector_dot(a, b, 2, &out) == 0 && out == 11.0f);
    CHECK(qvn_vector_l2_sq(a, b, 2, &out) == 0 && out == 8.0f);
    CHECK(qvn_vector_l2(a, a, 2, &out) == 0 && out == 0.0f);
    CHECK(qvn_vector_cosine_similarity(a, a, 2, &out) == 0);
    CHECK(qvn_vector_cosine_distance(a, b, 0, &out) == -1);
    CHECK(qvn_vector_norm(b, 2, &out) == 0 && out == 5.0f);
    CHECK(qvn_vector_normalize(b, 2, arr) == 0 && arr[0] == 0.6f);
    CHECK(qvn_vector_add(a, b, 2, arr) == 0 && arr[1] == 6.0f);
    CHECK(qvn_vector_sub(a, NULL, 2, arr) == -1);
    CHECK(qvn_vector_scale(a, 2, arr, 2.0f) == 0 && arr[1] == 4.0f);
    CHECK(qvn_vector_weighted_concat(a, 2, b, 2, arr, 1.0f, 0.5f) == 0 && arr[3] == 2.0f);
}

static void ostrany_only_calls(void) {
    qvn_context *min = qvn_new_minimal();
    qvn_context *ost = qvn_new_ostrany(NULL, NULL);
    qvn_diversify_params p;
    memset(&p, 0, sizeof p);

    CHECK(qvn_entropy_set_source(min, 1, 0) == QVN_ERR_INVALID);
    CHECK(qvn_entropy_active_source(min) == 0);
    CHECK(qvn_entropy_active_source(ost) == 1);
    CHECK(qvn_diversify_enable(min) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_enable(NULL) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_disable(min) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_set_params(min, &p) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_get_params(min, &p) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_get_params(ost, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_set_params(ost, NULL) == QVN_ERR_INVALID);
    CHECK(isnan(qvn_diversify_current_dq(min)));
    CHECK(isnan(qvn_diversify_overhead_p99_us(NULL)));
    CHECK(qvn_feedback_report(min, 0, QVN_FEEDBACK_NEGATIVE, 0) == QVN_ERR_INVALID);
    CHECK(qvn_feedback_report(ost, 0, 3, 0) == QVN_ERR_INVALID);
    CHECK(qvn_diversify_get_params(ost, &p) == 0 && p.dq_window == 5 && p.shadow_capacity == 64);
    CHECK(qvn_diversify_enable(ost) == 0);
    CHECK(qvn_feedback_report(ost, 0, QVN_FEEDBACK_NEGATIVE, 0) == 0);
    CHECK(strcmp(qvn_last_error(ost), "") == 0);
    qvn_free(min);
    qvn_free(ost);
}

static void reasoning_calls(void) {
    qvn_context *ctx = qvn_new_minimal();
    qvn_ai_response r;
    memset(&r, 0, sizeof r);
    CHECK(qvn_load_reasoning(NULL, "/x") == QVN_ERR_INVALID);
    CHECK(qvn_load_reasoning(ctx, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_load_reasoning(ctx, "") == QVN_ERR_INVALID);
    CHECK(qvn_load_reasoning(ctx, "plugins/r.so") == QVN_ERR_INVALID);
    CHECK(starts_with(qvn_last_error(ctx), "quorvane: reasoning plugin path must be absolute"));
    CHECK(qvn_load_reasoning(ctx, "/") == QVN_ERR_EXTERNAL);
    CHECK(qvn_dispatch_ai(NULL, "q", 1, NULL, 0, &r) == QVN_ERR_INVALID);
    CHECK(qvn_dispatch_ai(ctx, NULL, 1, NULL, 0, &r) == QVN_ERR_INVALID);
    CHECK(qvn_dispatch_ai(ctx, "q", 0, NULL, 0, &r) == QVN_ERR_INVALID);
    CHECK(qvn_dispatch_ai(ctx, "q", 1, NULL, 0, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_dispatch_ai(ctx, "q", 1, NULL, 0, &r) == QVN_ERR_NO_REASONING);
    qvn_ai_response_free(NULL);
    qvn_ai_response_free(&r);
    qvn_free(ctx);
}

static void metric_calls(void) {
    double x[64], out = 0.0, o2 = 0.0, o3 = 0.0, w[2];
    const uint64_t edges[] = {0, 1};
    const uint64_t tris[] = {0, 1, 2};
    const double ret[] = {0.1, 0.2}, cov[] = {1, 0, 0, 1};
    int i;
    for (i = 0; i < 64; ++i) x[i] = (double)((i * 37) % 11);
    CHECK(qvn_dimension_dfa(NULL, 64, &out) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_dfa(x, 64, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_dfa(x, 15, &out) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_drift(x, 64, 16, NULL, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_drift(x, 64, 0, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_boxcount(NULL, 8, 2, &out) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_boxcount(x, 7, 2, &out) == QVN_ERR_INVALID);
    CHECK(qvn_dimension_boxcount(x, 8, 0, &out) == QVN_ERR_INVALID);
    CHECK(qvn_vascular_network(x, 8, NULL, x, 1, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_vascular_network(x, 8, edges, x, 0, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_cortical_folding(x, 4, tris, 1, &out, &o2, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_cortical_folding(x, 4, tris, 0, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_nerve_plexus_metric(x, 8, 0, edges, 1, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_nerve_plexus_metric(x, 8, 2, NULL, 1, &out, &o2, &o3) == QVN_ERR_INVALID);
    CHECK(qvn_morphological_complexity(x, 7, 2, &out, &o2) == QVN_ERR_INVALID);
    CHECK(qvn_morphological_complexity(x, 8, 2, NULL, &o2) == QVN_ERR_INVALID);
    CHECK(qvn_optimize_portfolio(NULL, cov, 2, 1, 0, w, &out) == QVN_ERR_INVALID);
    CHECK(qvn_optimize_portfolio(ret, cov, 2, 0, 0, w, &out) == QVN_ERR_INVALID);
    CHECK(qvn_optimize_portfolio(ret, cov, 2, 3, 0, w, &out) == QVN_ERR_INVALID);
    CHECK(qvn_optimize_portfolio_ex(ret, cov, 2, 1, 0, 0, 0, w, NULL) == QVN_ERR_INVALID);
    CHECK(qvn_optimize_portfolio(ret, cov, 2, 2, 7, w, &out) == 0);
    CHECK(fabs(w[0] + w[1] - 1.0) < 1e-12);
}

int main(void) {
    identity();
    context_calls();
    search_calls();
    vector_calls();
    ostrany_only_calls();
    reasoning_calls();
    metric_calls();
    printf("c_host: %d passed, %d failed\n", g_passed, g_failed);
    return g_failed ? 1 : 0;
}
