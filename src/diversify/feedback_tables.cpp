// Truth and shadow feedback tables: fixed-capacity arrays searched
// linearly, at most one entry per id, evicting the weakest entry when full.
//
// Tie-breaks: lookups take the first entry with the id; eviction takes the
// lowest position among equal minima (a later entry replaces the candidate
// only when strictly smaller). Truth weights accumulate up to 2.0; shadow
// weights accumulate without a cap, and a shadow entry keeps the epoch,
// amplitude and sigma of its first report. Shadow eviction compares
// amplitude * sigma * weight, multiplied in that order.
#include <cstdlib>

#include "diversify/diversify.h"

namespace {

constexpr size_t kDefaultCapacity = 64;

// Header plus zero-filled entries, or null with nothing left allocated.
template <class Table, class Entry>
Table *create_table(size_t capacity) noexcept {
    if (capacity == 0) capacity = kDefaultCapacity;
    auto *table = static_cast<Table *>(std::calloc(1, sizeof(Table)));
    if (!table) return nullptr;
    table->entries = static_cast<Entry *>(std::calloc(capacity, sizeof(Entry)));
    if (!table->entries) {
        std::free(table);
        return nullptr;
    }
    table->capacity = capacity;
    return table;
}

}  // namespace

double qvni_gumption(uint32_t value, uint32_t kind) noexcept {
    if (kind == QVN_FEEDBACK_GRADED) {
        const double g = static_cast<double>(value) / 10000.0;
        return g < 1.0 ? g : 1.0;
    }
    if (kind == QVN_FEEDBACK_FULL) return 1.0;
    return 0.0;
}

qvni_truth_table *qvni_truth_create(size_t capacity) noexcept {
    return create_table<qvni_truth_table, qvni_truth_entry>(capacity);
}

int32_t qvni_truth_insert(qvni_truth_table *table, uint64_t id, uint64_t epoch,
                          double weight) noexcept {
    if (!table) return -1;
    for (uint64_t i = 0; i < table->count; ++i) {
        qvni_truth_entry &e = table->entries[i];
        if (e.id == id) {
            const double sum = e.weight + weight;
            e.weight = sum < 2.0 ? sum : 2.0;
            return 0;
        }
    }
    uint64_t slot = table->count;
    if (table->count < table->capacity) {
        ++table->count;
    } else {
        slot = 0;
        for (uint64_t i = 1; i < table->count; ++i)
            if (table->entries[i].weight < table->entries[slot].weight) slot = i;
    }
    table->entries[slot] = qvni_truth_entry{id, epoch, weight};
    return 0;
}

void qvni_truth_destroy(qvni_truth_table *table) noexcept {
    if (!table) return;
    std::free(table->entries);
    std::free(table);
}

qvni_shadow_table *qvni_shadow_create(size_t capacity) noexcept {
    return create_table<qvni_shadow_table, qvni_shadow_entry>(capacity);
}

int32_t qvni_shadow_insert(qvni_shadow_table *table, uint64_t id, uint64_t epoch,
                           double weight, double amplitude, double sigma) noexcept {
    if (!table) return -1;
    for (uint64_t i = 0; i < table->count; ++i) {
        qvni_shadow_entry &e = table->entries[i];
        if (e.id == id) {
            e.weight += weight;
            return 0;
        }
    }
    uint64_t slot = table->count;
    if (table->count < table->capacity) {
        ++table->count;
    } else {
        const auto strength = [](const qvni_shadow_entry &e) {
            return e.amplitude * e.sigma * e.weight;
        };
        slot = 0;
        double weakest = strength(table->entries[0]);
        for (uint64_t i = 1; i < table->count; ++i) {
            const double s = strength(table->entries[i]);
            if (s < weakest) {
                weakest = s;
                slot = i;
            }
        }
    }
    table->entries[slot] = qvni_shadow_entry{id, epoch, weight, amplitude, sigma};
    return 0;
}

size_t qvni_shadow_count(const qvni_shadow_table *table) noexcept {
    return table ? table->count : 0;
}

void qvni_shadow_destroy(qvni_shadow_table *table) noexcept {
    if (!table) return;
    std::free(table->entries);
    std::free(table);
}
