// Truth and shadow feedback tables.
#include <cstdlib>

#include "diversify/diversify.h"

void qvni_truth_destroy(qvni_truth_table *table) noexcept {
    if (!table) return;
    std::free(table->entries);
    std::free(table);
}

void qvni_shadow_destroy(qvni_shadow_table *table) noexcept {
    if (!table) return;
    std::free(table->entries);
    std::free(table);
}
