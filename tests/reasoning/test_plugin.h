/* Counters a test plug-in exports as qvn_test_stats; tests read them via dlsym. */
struct plugin_stats { int init, fini; void *init_state, *fini_state; };
