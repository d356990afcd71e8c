// A binary heap of pointers over the standard heap algorithms. Invariant: entries[0] is an entry that no
// other precedes by compare. The heap owns entries only in heap_destroy2.
#include "tavbase.h"

#include <algorithm>
#include <new>
#include <vector>

struct heap {
    heap_compare compare;
    void (*release)(void *entry);
    std::vector<void *> entries;

    // The standard algorithms keep the greatest in front, so the order is turned round.
    auto after() const {
        return [compare = compare](const void *a, const void *b) { return compare(a, b) > 0; };
    }
};

namespace {

heap_t *create(void (*release)(void *), heap_compare compare) {
    return compare ? new (std::nothrow) heap{compare, release, {}} : nullptr;
}

} // namespace

heap_t *heap_create(heap_compare compare) noexcept { return create(nullptr, compare); }

heap_t *heap_create2(void (*release)(void *entry), heap_compare compare, uint32_t) noexcept {
    return create(release, compare);
}

int heap_push(heap_t *heap, void *entry) noexcept {
    if (!heap || !entry) return -1;
    try {
        heap->entries.push_back(entry);
    } catch (const std::exception &) {
        return -1;
    }
    std::push_heap(heap->entries.begin(), heap->entries.end(), heap->after());
    return 0;
}

int heap_pop(heap_t *heap, void **entry) noexcept {
    if (!heap || heap->entries.empty()) return -1;
    std::pop_heap(heap->entries.begin(), heap->entries.end(), heap->after());
    if (entry) *entry = heap->entries.back();
    heap->entries.pop_back();
    return 0;
}

void *heap_top(const heap_t *heap) noexcept {
    return heap && !heap->entries.empty() ? heap->entries.front() : nullptr;
}

uint32_t heap_count(const heap_t *heap) noexcept {
    return heap ? static_cast<uint32_t>(heap->entries.size()) : 0;
}

void heap_destroy(heap_t *heap) noexcept { delete heap; }

void heap_destroy2(heap_t *heap) noexcept {
    if (!heap) return;
    if (heap->release)
        for (void *entry : heap->entries) heap->release(entry);
    delete heap;
}
